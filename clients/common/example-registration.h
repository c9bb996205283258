/*
 * example-registration.h - how an example client driver joins the framework:
 * it registers under its name and places its filters, all served by one
 * procedure whose filter context tells them apart. Driver code (after
 * <ntddk.h>, <ndis.h> and <ndisfilter.h>).
 */
#ifndef EXAMPLE_REGISTRATION_H
#define EXAMPLE_REGISTRATION_H

/* One filter an example driver places. */
typedef struct _EXAMPLE_PLACEMENT {
    PCSTR Name;
    FILTER_TYPE Type;
    FILTER_ORDER Order;
    ULONG_PTR Context; /* the filter context its procedure receives */
} EXAMPLE_PLACEMENT;

/*
 * Registers the driver and places its filters. On any failure what was
 * registered is taken back and *Driver is NULL. Registration answers success
 * without a handle when memory is short, so the handles are tested as well.
 * IRQL = PASSIVE_LEVEL.
 */
static inline NTSTATUS ExampleRegister(PCSTR Name, PVOID DriverContext, PFILTER_PROC Procedure,
                                       const EXAMPLE_PLACEMENT *Placements, ULONG Count, PFilterDriver *Driver)
{
    STRING name;
    RtlInitAnsiString(&name, Name);
    *Driver = NULL;
    if (Filter_RegisterDriver(&name, DriverContext, FILTER_API_MAJOR_VERSION, FILTER_API_MINOR_VERSION, Driver) !=
            FILTER_STATUS_SUCCESS ||
        *Driver == NULL) {
        *Driver = NULL;
        return STATUS_UNSUCCESSFUL;
    }
    for (ULONG i = 0; i < Count; i++) {
        STRING filterName;
        RtlInitAnsiString(&filterName, Placements[i].Name);
        PPacketFilter filter = NULL;
        if (Filter_RegisterFilter(*Driver, &filterName, Procedure, (PVOID)Placements[i].Context, Placements[i].Type,
                                  Placements[i].Order, &filter) != FILTER_STATUS_SUCCESS ||
            filter == NULL) {
            Filter_DeregisterDriver(*Driver); /* its filters go with it */
            *Driver = NULL;
            return STATUS_UNSUCCESSFUL;
        }
    }
    return STATUS_SUCCESS;
}

#endif /* EXAMPLE_REGISTRATION_H */

/*
 * example-diag.h - how an example client driver answers the diagnostic
 * commands addressed to it ("<its name> show") through its control-request
 * handler. Driver code (after <ntddk.h>, <ndis.h> and <ndisfilter.h>).
 */
#ifndef EXAMPLE_DIAG_H
#define EXAMPLE_DIAG_H

/* Prints the driver's state into the reply. */
typedef VOID (*EXAMPLE_DIAG_SHOW)(PDiag Diag);

static inline BOOLEAN ExampleSameWord(PCSTR Word, PCSTR Expected)
{
    for (;; Word++, Expected++) {
        CHAR a = (*Word >= 'A' && *Word <= 'Z') ? (CHAR)(*Word - 'A' + 'a') : *Word;
        CHAR b = (*Expected >= 'A' && *Expected <= 'Z') ? (CHAR)(*Expected - 'A' + 'a') : *Expected;
        if (a != b)
            return FALSE;
        if (a == '\0')
            return TRUE;
    }
}

/*
 * The diagnostic part of a control-request handler. "driver" alone is for
 * every driver: each adds its line and passes it on. A command whose first
 * word is `Name` (any case) is answered: "show" prints the state, anything
 * else the usage. Every other request is declined (STATUS_NOT_SUPPORTED).
 * IRQL = PASSIVE_LEVEL.
 */
static inline NTSTATUS ExampleAnswerDiag(PCSTR Name, PCSTR Title, ULONG Code, PVOID Input, ULONG InputLength,
                                         PVOID Output, ULONG OutputLength, EXAMPLE_DIAG_SHOW Show)
{
    PDiag diag = NULL;
    if (Code != IOCTL_NDIS_FILTER_DIAG ||
        Filter_BeginDiag(Input, InputLength, Output, OutputLength, &diag) != FILTER_STATUS_SUCCESS)
        return STATUS_NOT_SUPPORTED;
    if (ExampleSameWord(diag->m_pDriverName, "driver") && diag->m_nArgc == 0) {
        Filter_DiagPrint(diag, "%s - %s\n", Name, Title);
        return STATUS_NOT_SUPPORTED;
    }
    if (!ExampleSameWord(diag->m_pDriverName, Name))
        return STATUS_NOT_SUPPORTED;
    if (diag->m_nArgc >= 1 && ExampleSameWord(diag->m_pArgv[0], "show"))
        Show(diag);
    else
        Filter_DiagPrint(diag, "usage: %s show\n", Name);
    return STATUS_SUCCESS;
}

#endif /* EXAMPLE_DIAG_H */

#!/usr/bin/env python3
"""The image checker must find each kind of drift it exists to catch.

Runs on recorded objdump output and small source snippets; needs no image.
"""

import os
import sys
import unittest

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
import check_image as ci  # noqa: E402

# objdump -p of a small driver image, trimmed to the parts the checks read.
DUMP = """
Characteristics 0x222e
\texecutable
\tline numbers stripped
\tDLL

Subsystem\t\t00000001\t(NT native)
DllCharacteristics\t00000160
\t\t\t\t\tHIGH_ENTROPY_VA
\t\t\t\t\tDYNAMIC_BASE
\t\t\t\t\tNX_COMPAT

Entry 3 0000000000003000 0000003c Exception Directory [.pdata]
Entry 5 0000000000008000 0000000c Base Relocation Directory [.reloc]
Entry 9 0000000000000000 00000000 Thread Storage Directory [.tls]

The Import Tables (interpreted .idata section contents)
 vma:            Hint    Time      Forward  DLL       First
                 Table   Stamp     Chain    Name      Thunk
 00007000\t00007040 00000000 00000000 000071e8 000070a0

\tDLL Name: NDIS.SYS
\tvma:  Hint/Ord Member-Name Bound-To
\t7100\t    6  NdisAcquireReadWriteLock

 00007014\t00007060 00000000 00000000 00007210 000070c0

\tDLL Name: ntoskrnl.exe
\tvma:  Hint/Ord Member-Name Bound-To
\t7156\t   66  DbgPrint
\t71cc\t 2035  _vsnprintf

 00007028\t00000000 00000000 00000000 00000000 00000000

The Export Tables (interpreted .edata section contents)

Name \t\t\t\t0000000000006046 ndisfilter.sys
Export Address Table -- Ordinal Base 1
\t[   0] +base[   1] 1060 Export RVA
\t[   1] +base[   2] 1070 Export RVA
\t[   2] +base[   3] 1070 Export RVA

[Ordinal/Name Pointer] Table
\t[   0] Filter_Open
\t[   1] htons
\t[   2] ntohs

The Function Table (interpreted .pdata section contents)
"""

HEADER = """
#define NDISFILTER_API extern
/* NDISFILTER_API VOID NTAPI Filter_Commented(VOID); */
NDISFILTER_API FILTER_STATUS NTAPI Filter_Open(PNDIS_STRING Name,
                                               PVOID *Handle); // NDISFILTER_API int Filter_Trailing(void);
#if defined(_WIN64)
NDISFILTER_API USHORT NTAPI htons(USHORT v);
#endif
NDISFILTER_API USHORT NTAPI
    ntohs(USHORT v);
"""

DEF = """; ndisfilter exports
LIBRARY ndisfilter.sys
EXPORTS
    Filter_Open
    htons
    ntohs=htons   ; the same routine
"""


def replace_line(text, old, new):
    assert old in text, old
    return text.replace(old, new)


class HeaderDeclarations(unittest.TestCase):
    def test_finds_each_declaration_including_multi_line_ones(self):
        self.assertEqual(ci.header_exports(HEADER), ["Filter_Open", "htons", "ntohs"])

    def test_skips_calling_conventions_and_attributes_before_the_name(self):
        text = ("NDISFILTER_API FILTER_STATUS __cdecl Filter_Report(ULONG v, PCSTR f, ...);\n"
                "NDISFILTER_API __attribute__((noinline)) VOID NTAPI Filter_Flush(VOID);\n")
        self.assertEqual(ci.header_exports(text), ["Filter_Report", "Filter_Flush"])

    def test_exported_data_is_named_by_its_last_identifier(self):
        self.assertEqual(ci.header_exports("NDISFILTER_API ULONG Filter_Version;"), ["Filter_Version"])

    def test_continued_define_lines_are_not_declarations(self):
        text = "#define WRAP(x) \\\n    NDISFILTER_API VOID NTAPI x(VOID);\nNDISFILTER_API VOID NTAPI Real(VOID);"
        self.assertEqual(ci.header_exports(text), ["Real"])


class ModuleDefinitionFile(unittest.TestCase):
    def test_alias_lines_export_the_alias_name(self):
        self.assertEqual(ci.def_exports(DEF), ("ndisfilter.sys", ["Filter_Open", "htons", "ntohs"]))

    def test_ordinals_and_keywords_after_the_name_are_ignored(self):
        text = "EXPORTS Filter_A\n  Filter_B @7 NONAME\n  Filter_C PRIVATE\n  Filter_D DATA\n"
        self.assertEqual(ci.def_exports(text), (None, ["Filter_A", "Filter_B", "Filter_C", "Filter_D"]))

    def test_names_outside_the_exports_section_are_not_exports(self):
        text = "LIBRARY x.sys\nSECTIONS\n  .shared READ WRITE SHARED\nEXPORTS\n  Filter_A\n"
        self.assertEqual(ci.def_exports(text), ("x.sys", ["Filter_A"]))


class ExportCheck(unittest.TestCase):
    def check(self, dump=DUMP, header=HEADER, def_text=DEF):
        ci.check_exports(dump, "ndisfilter.sys", header, "ndisfilter.h", def_text, "ndisfilter.def")

    def assertDrift(self, expected, **kwargs):
        with self.assertRaises(ci.CheckFailed) as failure:
            self.check(**kwargs)
        self.assertIn(expected, str(failure.exception))

    def test_header_def_and_image_in_step_pass(self):
        self.check()

    def test_a_declaration_missing_from_the_def_file_is_named(self):
        self.assertDrift("in ndisfilter.h (NDISFILTER_API declarations), not in ndisfilter.def: Filter_Close",
                         header=HEADER + "NDISFILTER_API VOID NTAPI Filter_Close(PVOID h);\n")

    def test_a_def_entry_the_header_does_not_declare_is_named(self):
        self.assertDrift("in ndisfilter.def, not in ndisfilter.h (NDISFILTER_API declarations): Filter_Secret",
                         def_text=DEF + "    Filter_Secret\n")

    def test_an_export_missing_from_the_image_is_named(self):
        dump = replace_line(DUMP, "\t[   0] Filter_Open\n", "")
        self.assertDrift("in ndisfilter.def, not in ndisfilter.sys's export table: Filter_Open", dump=dump)

    def test_a_library_name_other_than_the_image_is_rejected(self):
        self.assertDrift("says LIBRARY ndisfilter, the image is ndisfilter.sys",
                         def_text=replace_line(DEF, "LIBRARY ndisfilter.sys", "LIBRARY ndisfilter"))

    def test_an_export_listed_twice_is_rejected(self):
        self.assertDrift("ndisfilter.def names twice: htons", def_text=DEF + "    htons\n")

    def test_an_image_without_exports_is_rejected(self):
        dump = DUMP[:DUMP.index("The Export Tables")]
        self.assertDrift("ndisfilter.sys has no export table", dump=dump)


class ImportCheck(unittest.TestCase):
    def test_kernel_and_ndis_imports_pass(self):
        ci.check_imports(DUMP)
        ci.check_imports(DUMP + "\n\tDLL Name: HAL.dll\n\tvma:  Hint/Ord Member-Name Bound-To\n"
                                "\t7300\t   12  KeStallExecutionProcessor\n")

    def test_dll_names_compare_without_case(self):
        ci.check_imports(replace_line(DUMP, "ntoskrnl.exe", "NTOSKRNL.EXE"))

    def test_a_user_mode_dll_is_named_with_the_functions_taken_from_it(self):
        dump = DUMP + "\n\tDLL Name: msvcrt.dll\n\tvma:  Hint/Ord Member-Name Bound-To\n" \
                      "\t7300\t  120  malloc\n\t7310\t  121  printf\n"
        with self.assertRaises(ci.CheckFailed) as failure:
            ci.check_imports(dump)
        self.assertIn("imports from msvcrt.dll, which a driver cannot use: malloc, printf", str(failure.exception))

    def test_an_image_not_importing_ndis_is_rejected(self):
        dump = replace_line(DUMP, "DLL Name: NDIS.SYS", "DLL Name: HAL.dll")
        with self.assertRaisesRegex(ci.CheckFailed, "does not import from NDIS.SYS"):
            ci.check_imports(dump)


class ClientImportCheck(unittest.TestCase):
    HEADER = "NDISFILTER_API FILTER_STATUS NTAPI Filter_RegisterDriver(PSTRING Name);\n"
    FRAMEWORK = "\n\tDLL Name: ndisfilter.sys\n\tvma:  Hint/Ord Member-Name Bound-To\n"

    def test_the_framework_functions_by_name_beside_the_kernel_pass(self):
        ci.check_client_imports(DUMP + self.FRAMEWORK + "\t7300\t    3  Filter_RegisterDriver\n",
                                self.HEADER, "ndisfilter.sys")

    def test_no_named_framework_import_or_an_undeclared_one_or_another_dll_fails(self):
        for extra, message in (("", "imports no function from ndisfilter.sys by name"),
                               (self.FRAMEWORK + "\t7300\t    3  Filter_Secret\n", "does not export: Filter_Secret"),
                               ("\n\tDLL Name: msvcrt.dll\n\tvma:  Hint/Ord Member-Name Bound-To\n"
                                "\t7300\t  120  malloc\n", "imports from msvcrt.dll: malloc")):
            with self.assertRaisesRegex(ci.CheckFailed, message):
                ci.check_client_imports(DUMP + extra, self.HEADER, "ndisfilter.sys")


class SubsystemAndLayout(unittest.TestCase):
    HEADERS = """
Sections:
Idx Name          Size      VMA               LMA               File off  Algn
  0 .text         00000210  0000000140001000  0000000140001000  00000400  2**4
                  CONTENTS, ALLOC, LOAD, READONLY, CODE
  1 .data         00000040  0000000140002000  0000000140002000  00000800  2**4
                  CONTENTS, ALLOC, LOAD, DATA
"""

    def test_a_windows_gui_image_is_not_a_driver(self):
        ci.check_subsystem(DUMP)
        with self.assertRaisesRegex(ci.CheckFailed, "subsystem is 2"):
            ci.check_subsystem(replace_line(DUMP, "00000001\t(NT native)", "00000002\t(Windows GUI)"))

    def test_a_well_formed_image_passes(self):
        ci.check_layout(DUMP, self.HEADERS)

    def test_thread_local_storage_is_rejected(self):
        dump = replace_line(DUMP, "Entry 9 0000000000000000 00000000", "Entry 9 0000000000009000 00000028")
        with self.assertRaisesRegex(ci.CheckFailed, "TLS directory"):
            ci.check_layout(dump, self.HEADERS)

    def test_missing_unwind_data_is_rejected(self):
        dump = replace_line(DUMP, "Entry 3 0000000000003000 0000003c", "Entry 3 0000000000000000 00000000")
        with self.assertRaisesRegex(ci.CheckFailed, "no exception directory"):
            ci.check_layout(dump, self.HEADERS)

    def test_writable_code_and_stripped_relocations_are_rejected(self):
        dump = replace_line(DUMP, "\texecutable\n", "\texecutable\n\trelocations stripped\n")
        headers = replace_line(self.HEADERS, "LOAD, READONLY, CODE", "LOAD, CODE")
        with self.assertRaises(ci.CheckFailed) as failure:
            ci.check_layout(dump, headers)
        self.assertIn("relocations are stripped", str(failure.exception))
        self.assertIn("section .text is both writable and executable", str(failure.exception))


class ImportLibrary(unittest.TestCase):
    SYMBOLS = "".join("[  6](sec  3)(fl 0x00)(ty    0)(scl   2) (nx 0) 0x0000000000000000 __imp_%s\n" % n
                      for n in ("Filter_Open", "htons", "ntohs"))
    CONTENTS = """In archive libndisfilter.a:

ndisfilter_sys_d000004.o:     file format pe-x86-64

Contents of section .idata$7:
 0000 6e646973 66696c74 65722e73 79730000  ndisfilter.sys..

ndisfilter_sys_d000000.o:     file format pe-x86-64

Contents of section .idata$7:
 0000 00000000                             ....
"""

    def check(self, symbols=SYMBOLS, contents=CONTENTS):
        ci.check_import_library(symbols, contents, "ndisfilter.sys", "libndisfilter.a", DEF, "ndisfilter.def")

    def test_a_library_binding_every_export_to_the_image_passes(self):
        self.check()

    def test_a_library_binding_clients_to_a_dll_name_is_rejected(self):
        contents = replace_line(self.CONTENTS, "6e646973 66696c74 65722e73 79730000",
                                "6e646973 66696c74 65722e64 6c6c0000")
        with self.assertRaisesRegex(ci.CheckFailed, "binds clients to ndisfilter.dll instead of ndisfilter.sys"):
            self.check(contents=contents)

    def test_a_missing_import_entry_is_named(self):
        symbols = self.SYMBOLS.replace("__imp_ntohs", "__imp_other")
        with self.assertRaises(ci.CheckFailed) as failure:
            self.check(symbols=symbols)
        self.assertIn("lacks import entries for: ntohs", str(failure.exception))
        self.assertIn("ndisfilter.def does not list: other", str(failure.exception))


class Checksum(unittest.TestCase):
    @staticmethod
    def image(size=0x201):
        data = bytearray(size)
        data[0:2] = b"MZ"
        data[0x3C:0x40] = (0x80).to_bytes(4, "little")
        data[0x80:0x84] = b"PE\0\0"
        for i in range(0x100, size):
            data[i] = (i * 7) & 0xFF
        stored, computed = ci.pe_checksum(bytes(data))
        field = 0x80 + 4 + 20 + 64
        data[field:field + 4] = computed.to_bytes(4, "little")
        return data

    def test_the_stored_checksum_does_not_count_itself(self):
        stored, computed = ci.pe_checksum(bytes(self.image()))
        self.assertEqual(stored, computed)
        ci.check_checksum(bytes(self.image(0x200)), "x.sys")

    def test_a_changed_byte_is_detected(self):
        data = self.image()
        data[0x150] ^= 0x01
        with self.assertRaisesRegex(ci.CheckFailed, "checksum is"):
            ci.check_checksum(bytes(data), "x.sys")

    def test_a_file_that_is_not_an_image_is_rejected(self):
        with self.assertRaisesRegex(ci.CheckFailed, "not a PE image"):
            ci.pe_checksum(b"\x7fELF" + bytes(100))


if __name__ == "__main__":
    unittest.main()

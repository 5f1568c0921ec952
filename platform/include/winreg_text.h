/* The registry as text: .reg files in and out. This header is the layer's own; Windows has a program for it.
 *
 * Format: a first line "REGEDIT4" (text in the ANSI code page) or "Windows Registry Editor Version 5.00" (text in
 * UTF-8, or in UTF-16 with its byte order mark, as Windows writes it); then [HKEY_LOCAL_MACHINE\Software\Name] makes
 * the key and goes on in it; HKLM, HKEY_CURRENT_USER and HKCU too
 *   [-HKEY_LOCAL_MACHINE\Software\Name]    deletes the key with all that is below it
 *   "name"="text"                          REG_SZ; \\ and \" in names and text; the NUL is stored too
 *   "name"=dword:0000002a                  REG_DWORD, up to 8 hexadecimal digits
 *   "name"=hex:01,02,\                     REG_BINARY; a backslash at the end of a line goes on in the next
 *   "name"=hex(7):61,00,00                 any type, by its number in hexadecimal; in version 5.00 the types 1, 2 and 7
 *                                          hold UTF-16 text
 *   "name"=-                               deletes the value
 *   @=...                                  the key's default value
 *   ; comment
 * Source: Microsoft, "How to add, modify, or delete registry subkeys and values by using a .reg file". */
#ifndef ORIEL_WINREG_TEXT_H
#define ORIEL_WINREG_TEXT_H

#include <winreg.h>

WINBASE_BEGIN

/* Imports a text, wholly or not at all (one transaction for each root that it names; HKEY_LOCAL_MACHINE is ended
 * first). length: bytes. ERROR_BAD_FORMAT: a line is malformed or names something beyond the registry's limits, and
 * nothing was changed. errorLine may be absent; the line that was refused, from 1, or 0 when the failure belongs to
 * none. Other codes as in winreg.h. */
WINBASEAPI LSTATUS WINAPI RegImportTextA(const char* text, SIZE_T length, LPDWORD errorLine);

/* Writes a key and all that is below it as REGEDIT4 text with CRLF line ends, not NUL-terminated, such that importing
 * it gives the same names, types and bytes in the same order. key needs KEY_READ; subKey may be absent. length: bytes,
 * in and out. text absent: only the size. ERROR_MORE_DATA: the buffer is too small, length tells the size; what the key
 * holds can have grown since it was asked, so ask again. */
WINBASEAPI LSTATUS WINAPI RegExportTextA(HKEY key, LPCSTR subKey, char* text, SIZE_T* length);

WINBASE_END

#endif

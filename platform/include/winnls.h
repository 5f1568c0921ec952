/* Code pages and the order of text.
 *
 * The ANSI code page is set, not guessed: the environment variable ORIEL_ANSI_CODE_PAGE, else the registry value "ACP"
 * (text) of HKEY_LOCAL_MACHINE "SYSTEM\CurrentControlSet\Control\Nls\CodePage", else 1252. As on Windows it holds for a
 * process's life: it is read once, on first need. A number that is no code page here is passed over. */
#ifndef ORIEL_WINNLS_H
#define ORIEL_WINNLS_H

#include <windef.h>

#define CP_ACP 0
#define CP_UTF8 65001

#define MB_PRECOMPOSED 0x00000001
#define MB_ERR_INVALID_CHARS 0x00000008
#define WC_DEFAULTCHAR 0x00000040
#define WC_NO_BEST_FIT_CHARS 0x00000400

WINBASE_BEGIN

WINBASEAPI UINT WINAPI GetACP(void);

/* TRUE when the byte begins a double-byte character of the ANSI code page. */
WINBASEAPI BOOL WINAPI IsDBCSLeadByte(BYTE testChar);

/* Text of a code page to UTF-16.
 *
 * codePage         CP_ACP, CP_UTF8, or the number of a single- or double-byte code page that the system knows
 * flags            0, MB_PRECOMPOSED, MB_ERR_INVALID_CHARS; others are ERROR_INVALID_FLAGS. Without
 *                  MB_ERR_INVALID_CHARS what is invalid becomes U+FFFD; an undefined or halved double-byte character
 *                  becomes the code page's default: U+30FB for 932, "?" for the others
 * multiByteLength  bytes; -1: up to and with the NUL
 * wideLength       characters of the buffer; 0: ask for the number needed
 *
 * Returns the characters written (with the NUL when the source had it), 0 on failure: ERROR_INVALID_PARAMETER (NULL or
 * empty source, buffers that overlap, unknown code page), ERROR_INSUFFICIENT_BUFFER, ERROR_NO_UNICODE_TRANSLATION. */
WINBASEAPI int WINAPI MultiByteToWideChar(UINT codePage, DWORD flags, LPCSTR multiByte, int multiByteLength,
                                          LPWSTR wide, int wideLength);

/* UTF-16 to text of a code page, with the same rules.
 *
 * flags            0, WC_DEFAULTCHAR, WC_NO_BEST_FIT_CHARS: characters are never exchanged for similar ones
 * defaultChar      stands for what the code page does not have; NULL: "?"
 * usedDefaultChar  receives whether it was needed; may be NULL
 *
 * CP_UTF8 takes neither of the last two (ERROR_INVALID_PARAMETER); a surrogate without its partner becomes U+FFFD.
 * Other code pages have no surrogates: each becomes the default character. A character that does not fit is not written
 * in part. */
WINBASEAPI int WINAPI WideCharToMultiByte(UINT codePage, DWORD flags, LPCWSTR wide, int wideLength, LPSTR multiByte,
                                          int multiByteLength, LPCSTR defaultChar, LPBOOL usedDefaultChar);

/* Order of text of the ANSI code page: negative, zero, positive.
 *
 * Punctuation before digits, digits before letters; letters without regard to case, then with it (lower case first);
 * accented letters beside their base letter; double-byte text by character. A hyphen or apostrophe counts only between
 * texts that are equal without it. lstrcmpA gives 0 for identical text only; lstrcmpiA disregards case. NULL sorts
 * first. */
WINBASEAPI int WINAPI lstrcmpA(LPCSTR string1, LPCSTR string2);
WINBASEAPI int WINAPI lstrcmpiA(LPCSTR string1, LPCSTR string2);

WINBASE_END

#endif

// The fault guard: every access to memory that a caller points at goes through here.
//
// The kernel is asked to copy, so a bad pointer is an answer and no fault; nothing installs a handler in the process.
// Caller memory may change while it is read: it is copied in once and the copy is worked on; outputs are written last.
#pragma once

#include <windows.h>

// False when not all bytes could be copied. Nothing may then be said of the destination, except that a caller's memory
// may hold a first part.
bool CopyFromCaller(void* to, const void* from, SIZE_T size);
bool CopyToCaller(void* to, const void* from, SIZE_T size);

enum class CallerText {
    Read,
    Fault,  // it cannot be read up to its NUL
    TooLong // it does not fit; the buffer holds no text
};

// Copies a text with its NUL. capacity: of the buffer, in bytes or in characters, NUL included. No byte of a page is
// touched before the text was seen to reach it.
CallerText ReadCallerText(char* buffer, SIZE_T capacity, const char* from);
CallerText ReadCallerText(WCHAR* buffer, SIZE_T capacity, const WCHAR* from);

// Copies a text that may end without a NUL, at the limit: no character from there on is looked at. The buffer has one
// character more than the limit, and what is in it is terminated. False on a fault.
bool CopyCallerText(char* buffer, SIZE_T limit, const char* from);
bool CopyCallerText(WCHAR* buffer, SIZE_T limit, const WCHAR* from);

// A wide name converted to the ANSI code page. One that does not fit is TooLong rather than cut: a cut name means
// another printer, user or variable. The buffer then holds no text.
inline constexpr SIZE_T kNameSizeMax = 260;
CallerText ReadCallerName(char* buffer, int capacity, const WCHAR* from);
template <SIZE_T size>
CallerText ReadCallerName(char (&buffer)[size], const WCHAR* from) {
    static_assert(size <= kNameSizeMax);
    return ReadCallerName(buffer, static_cast<int>(size), from);
}

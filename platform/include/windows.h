/* The Win32 API as far as this product uses it. On Windows the same line reaches the toolchain's own header.
 *
 * What is declared here is implemented; what is not implemented is not declared. CONTRACT.md beside this folder has a row
 * for each call: what is kept, what is refused. */
#ifndef ORIEL_WINDOWS_H
#define ORIEL_WINDOWS_H

/* clang-format off: windef.h first, the others build on it */
#include <windef.h>
#include <winerror.h>
#include <winnt.h>
#include <winbase.h>
#include <winnls.h>
#include <winreg.h>
#include <winsvc.h>
#include <winuser.h>
/* clang-format on */

#endif

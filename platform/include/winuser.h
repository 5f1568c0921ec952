/* Message windows: windows without a surface, known to every process of the machine, with a queue of messages each.
 *
 * A window belongs to the thread that created it. Its class, title, process and thread can be read and messages posted
 * or sent to it from every process and by every user, as on one desktop. It is gone when it is destroyed, when its
 * thread ends and when its process ends, however it ends: no message survives it. All windows are top-level windows;
 * nothing is ever drawn.
 *
 * Window handles are machine-wide values between 0x10000 and 0x7fffffff, so a handle survives being stored in 32 bits.
 * They are drawn at random: two living windows never share one, and a stale one is refused with
 * ERROR_INVALID_WINDOW_HANDLE.
 *
 * Text is bytes in the ANSI code page. Functions that fail leave their outputs alone and set the last error. */
#ifndef ORIEL_WINUSER_H
#define ORIEL_WINUSER_H

#include <windef.h>
#include <winstation.h>

WINBASE_BEGIN

typedef WORD ATOM;
typedef HANDLE HICON;
typedef HANDLE HCURSOR;
typedef HANDLE HBRUSH;
typedef HANDLE HMENU;

typedef struct tagPOINT {
    LONG x;
    LONG y;
} POINT, *PPOINT, *LPPOINT;

typedef LRESULT(CALLBACK* WNDPROC)(HWND window, UINT message, WPARAM wParam, LPARAM lParam);
typedef BOOL(CALLBACK* WNDENUMPROC)(HWND window, LPARAM parameter);

/* Messages below WM_USER belong to the system, from WM_USER to 0x7fff to the window class, from WM_APP to 0xbfff to the
 * application. Higher numbers than 0xffff do not exist. */
#define WM_NULL 0x0000
#define WM_DESTROY 0x0002
#define WM_CLOSE 0x0010
#define WM_QUIT 0x0012
#define WM_USER 0x0400
#define WM_APP 0x8000

/* Longest class name and title in bytes, without the terminator. */
#define ORIEL_MAX_CLASS_NAME 256
#define ORIEL_MAX_WINDOW_TEXT 256

/* A message as it is read from the queue. time: GetTickCount() of the poster. pt: always 0, there is no pointer. */
typedef struct tagMSG {
    HWND hwnd;
    UINT message;
    WPARAM wParam;
    LPARAM lParam;
    DWORD time;
    POINT pt;
} MSG, *PMSG, *LPMSG;

typedef struct tagWNDCLASSEXA {
    UINT cbSize;
    UINT style;
    WNDPROC lpfnWndProc;
    int cbClsExtra;
    int cbWndExtra;
    HINSTANCE hInstance;
    HICON hIcon;
    HCURSOR hCursor;
    HBRUSH hbrBackground;
    LPCSTR lpszMenuName;
    LPCSTR lpszClassName;
    HICON hIconSm;
} WNDCLASSEXA, *PWNDCLASSEXA, *LPWNDCLASSEXA;

/* Registers a window class for the life of this process. A class is known by its name, without case, and its hInstance.
 * cbSize is the size of the record; lpfnWndProc and lpszClassName (1 to 256 bytes) are needed; every field that
 * concerns what a window looks like or stores (style, extra bytes, icons, cursor, brush, menu) must be 0. Returns a
 * non-zero number, unique in this process; names are used where Windows also takes that number. 0 on failure:
 * ERROR_INVALID_PARAMETER, ERROR_CLASS_ALREADY_EXISTS, ERROR_NOT_ENOUGH_MEMORY. */
WINBASEAPI ATOM WINAPI RegisterClassExA(const WNDCLASSEXA* windowClass);

#define CW_USEDEFAULT ((int)0x80000000)
#define WS_OVERLAPPED 0x00000000L

/* Creates a window of a class that this process has registered with the same instance. The title may be NULL (empty)
 * and has at most 256 bytes. A window without a surface has no styles, place, size, parent or menu: exStyle, style,
 * parent, menu and parameter must be 0, x, y, width and height 0 or CW_USEDEFAULT. The procedure is not told of the
 * creation (no WM_CREATE). NULL on failure: ERROR_CANNOT_FIND_WND_CLASS, ERROR_INVALID_PARAMETER,
 * ERROR_TOO_MANY_OPEN_FILES, ERROR_NOT_ENOUGH_MEMORY, ERROR_ACCESS_DENIED (the run directory cannot be written). */
WINBASEAPI HWND WINAPI CreateWindowExA(DWORD exStyle, LPCSTR className, LPCSTR windowName, DWORD style, int x, int y,
                                       int width, int height, HWND parent, HMENU menu, HINSTANCE instance,
                                       LPVOID parameter);

/* Destroys a window of the calling thread: its procedure gets WM_DESTROY, then the window and the messages still in its
 * queue are gone. ERROR_ACCESS_DENIED for a window of another thread; ERROR_INVALID_WINDOW_HANDLE. */
WINBASEAPI BOOL WINAPI DestroyWindow(HWND window);

/* What a procedure does with a message that it does not know: WM_CLOSE destroys the window, others do nothing. Returns
 * 0. */
WINBASEAPI LRESULT WINAPI DefWindowProcA(HWND window, UINT message, WPARAM wParam, LPARAM lParam);

/* The newest window whose class and title are those given, both compared without case; NULL matches any. Class names
 * only, no class numbers. NULL with ERROR_FILE_NOT_FOUND when there is none. */
WINBASEAPI HWND WINAPI FindWindowA(LPCSTR className, LPCSTR windowName);

/* Calls the procedure for each window of the machine, newest first, until it returns FALSE; then FALSE is returned with
 * the last error that the procedure left. Windows created meanwhile are not visited, windows destroyed meanwhile are
 * skipped. */
WINBASEAPI BOOL WINAPI EnumWindows(WNDENUMPROC procedure, LPARAM parameter);

/* Copies the class name, cut to size - 1 bytes and always terminated, and returns the number of bytes without the
 * terminator. 0 on failure: ERROR_INVALID_WINDOW_HANDLE, ERROR_INVALID_PARAMETER (no buffer). */
WINBASEAPI int WINAPI GetClassNameA(HWND window, LPSTR buffer, int size);

/* The thread that owns the window, and its process if asked for. Both as the owner has published them: its user's word.
 * 0 and ERROR_INVALID_WINDOW_HANDLE when there is no such window. */
WINBASEAPI DWORD WINAPI GetWindowThreadProcessId(HWND window, LPDWORD processId);

/* Whether the window exists now. */
WINBASEAPI BOOL WINAPI IsWindow(HWND window);

/* Puts a message at the end of the window's queue and returns at once; messages of one poster stay in order. Never
 * blocks: a queue of 64 KiB (about 1,600 messages) that is full refuses with ERROR_NOT_ENOUGH_QUOTA.
 * ERROR_INVALID_WINDOW_HANDLE for a window that is gone and for NULL and broadcasts, which this layer does not have. A
 * message above 0xffff is ERROR_INVALID_PARAMETER, a system message that carries a pointer ERROR_MESSAGE_SYNC_ONLY. */
WINBASEAPI BOOL WINAPI PostMessageA(HWND window, UINT message, WPARAM wParam, LPARAM lParam);

#define SMTO_NORMAL 0x0000
#define SMTO_BLOCK 0x0001

/* Has the window's procedure called by its thread and waits for the answer, at most timeout milliseconds. A window of
 * the calling thread is called directly, without a bound. The owning thread answers while it is in GetMessageA,
 * PeekMessageA or SendMessageTimeoutA. Under SMTO_NORMAL the calling thread answers what is sent to its own windows
 * meanwhile, under SMTO_BLOCK it does not. Parameters are values: a system message that carries a pointer is refused
 * with ERROR_MESSAGE_SYNC_ONLY between threads. 0 on failure: ERROR_TIMEOUT, ERROR_INVALID_WINDOW_HANDLE (also when the
 * window goes before it answers), ERROR_INVALID_PARAMETER. */
WINBASEAPI LRESULT WINAPI SendMessageTimeoutA(HWND window, UINT message, WPARAM wParam, LPARAM lParam, UINT flags,
                                              UINT timeout, DWORD_PTR* result);

/* Waits without bound, as is its purpose, for a message to a window of the calling thread and takes it from the queue.
 * window: NULL for all windows of the thread, or one of them. filterMin, filterMax: range of message numbers, 0 and 0
 * for all; WM_QUIT always passes. Messages sent to the thread's windows are answered on the way. Returns 0 when it got
 * WM_QUIT, -1 on failure (ERROR_INVALID_WINDOW_HANDLE, ERROR_INVALID_PARAMETER), else non-zero. */
WINBASEAPI BOOL WINAPI GetMessageA(LPMSG message, HWND window, UINT filterMin, UINT filterMax);

#define PM_NOREMOVE 0x0000
#define PM_REMOVE 0x0001

/* As GetMessageA, but returns FALSE at once when there is no message, and with PM_NOREMOVE leaves the message where it
 * is. No other flag: ERROR_INVALID_FLAGS. */
WINBASEAPI BOOL WINAPI PeekMessageA(LPMSG message, HWND window, UINT filterMin, UINT filterMax, UINT remove);

/* Calls the procedure of the message's window, a window of the calling thread; 0 when it is not. */
WINBASEAPI LRESULT WINAPI DispatchMessageA(const MSG* message);

/* Has the calling thread find WM_QUIT with wParam exitCode once its queue has no other message. */
WINBASEAPI void WINAPI PostQuitMessage(int exitCode);

WINBASE_END

#endif

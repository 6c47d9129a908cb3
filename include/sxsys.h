/* sxsys — the few platform functions a host of sxscan needs.
 *
 * Movable global memory blocks with Win32 semantics: a host allocates its
 * transfer buffer with them and unlocks and frees the SxValueList blocks that
 * SxQueryData hands over. An unknown or already freed handle is refused,
 * never a crash. The dialog observer (below) lets a host show the library's
 * dialogs and press their buttons. */
#ifndef SXSYS_H
#define SXSYS_H

#include "sxscan.h"

#define SX_GMEM_FIXED 0x0000
#define SX_GMEM_MOVEABLE 0x0002
#define SX_GMEM_ZEROINIT 0x0040
#define SX_GHND (SX_GMEM_MOVEABLE | SX_GMEM_ZEROINIT)

typedef void* SxHandle;

/* Null on failure. */
SX_EXPORT SxHandle SX_API SxSysGlobalAlloc(uint32_t flags, size_t bytes);
/* May move a movable block that is not locked; keeps the content and
 * zero-fills growth when SX_GMEM_ZEROINIT is given. Null on failure. */
SX_EXPORT SxHandle SX_API SxSysGlobalReAlloc(SxHandle handle, size_t bytes, uint32_t flags);
/* Lock count + 1; the block's address, or null. */
SX_EXPORT void* SX_API SxSysGlobalLock(SxHandle handle);
/* Lock count - 1; nonzero while the block is still locked. */
SX_EXPORT int32_t SX_API SxSysGlobalUnlock(SxHandle handle);
/* Null on success, the handle itself on failure. */
SX_EXPORT SxHandle SX_API SxSysGlobalFree(SxHandle handle);
/* 0 for an unknown handle. */
SX_EXPORT size_t SX_API SxSysGlobalSize(SxHandle handle);
/* The handle of the block whose locked address this is; null otherwise. */
SX_EXPORT SxHandle SX_API SxSysGlobalHandle(const void* lockedAddress);
/* Current lock count of a block (0 for an unknown handle). */
SX_EXPORT uint32_t SX_API SxSysGlobalLockCount(SxHandle handle);
/* Number of blocks allocated and not yet freed, the host's and the library's
 * together: what a leak check compares before and after. */
SX_EXPORT size_t SX_API SxSysGlobalBlockCount(void);

/* ------------------------------------------------------------------------
 * Dialog observer: the library's dialogs (the lamp warm-up wait and the
 * progress "track" dialog) live in a headless dialog model. A host that wants
 * to show them installs an observer, which is told of every dialog opened,
 * changed and closed, and may press a dialog's buttons.
 *
 * On Windows the dialogs are real windows made from the library's dialog
 * resources; the observer is told of the same changes, and a press reaches
 * the dialog as a click does. While an observer is installed a message box
 * is not shown: the observer is told of it and it is answered with OK.
 *
 * Threads: every notification about a dialog arrives on the thread that owns
 * it, synchronously, while that thread waits:
 *   - the warm-up dialog: the host's thread inside SxAcquire when the scan
 *     parameters are refused for a cold lamp, or when a page start is refused
 *     in direct mode; the library's read thread when a page start is refused
 *     in buffered mode;
 *   - the progress dialog: the host's thread inside SxAcquire in direct mode,
 *     the library's read thread in buffered mode.
 * Cursor and message-box notifications come on the thread that causes them.
 * An observer may call SxSysUiPress, SxSysUiEscape and SxSysUiGetText from
 * within a notification or from any other thread; it must not call the eight
 * scan functions from within one.
 * ------------------------------------------------------------------------ */

typedef void* SxDialog;

#define SX_UI_OPEN 1       /* Name: template; Text: caption; Value: 1 modal, 0 modeless */
#define SX_UI_CLOSE 2      /* the dialog is gone; its handle is no longer valid */
#define SX_UI_CAPTION 3    /* Text: the new caption */
#define SX_UI_TEXT 4       /* Control, Text: a control's new text */
#define SX_UI_SHOW 5       /* Control, Value: 1 shown, 0 hidden */
#define SX_UI_ENABLE 6     /* Control, Value: 1 enabled, 0 disabled */
#define SX_UI_FILL 7       /* Control; Value of Extent pixels filled from the left, in Color */
#define SX_UI_CURSOR 8     /* Value: SX_UI_CURSOR_ARROW or SX_UI_CURSOR_WAIT; no dialog */
#define SX_UI_MESSAGEBOX 9 /* Text: message; Name: caption; Value: box style; no dialog */

#define SX_UI_CURSOR_ARROW 0
#define SX_UI_CURSOR_WAIT 1

/* The dialogs' background (the system's menu colour): a fill in it clears. */
#define SX_UI_COLOR_BACKGROUND 0xF0F0F0u

/* The caption, for SxSysUiGetText. */
#define SX_UI_CAPTION_ID 0
/* The identifier of a dialog's Cancel button. */
#define SX_UI_CANCEL_ID 2

/* One notification; the texts are valid during the call only. */
typedef struct SxUiEvent {
  int32_t Kind;        /* SX_UI_... */
  int32_t Control;     /* control identifier, or 0 */
  int32_t Value;
  int32_t Extent;      /* SX_UI_FILL: the bar's full width in pixels */
  uint32_t Color;      /* SX_UI_FILL: 0x00BBGGRR */
  uint32_t Reserved;
  SxDialog Dialog;     /* null for cursor and message box */
  const char* Text;
  const char* Name;
} SxUiEvent;

typedef void(SX_API* SxUiObserver)(const SxUiEvent* event, void* context);

/* Installs the observer (null removes it). Install it before SxAcquire. */
SX_EXPORT void SX_API SxSysUiSetObserver(SxUiObserver observer, void* context);
/* Presses a visible, enabled button of an open dialog, as a user's click
 * does: the dialog acts on it the next time its owner thread handles its
 * messages. 1 when the press was queued, 0 when refused. */
SX_EXPORT int32_t SX_API SxSysUiPress(SxDialog dialog, int32_t control);
/* The Escape key: queues the Cancel command (identifier 2) even where no
 * Cancel button is visible. 1 when queued, 0 when the dialog is not open. */
SX_EXPORT int32_t SX_API SxSysUiEscape(SxDialog dialog);
/* Copies a control's text (SX_UI_CAPTION_ID: the caption), cut to size - 1
 * characters and a NUL. Its length, or -1 for no such dialog or control. */
SX_EXPORT int32_t SX_API SxSysUiGetText(SxDialog dialog, int32_t control, char* text, uint32_t size);
/* Declares the screen the dialogs are shown on (default 1920 x 1080 at 96
 * dots per inch; on Windows, the real screen); a value of 0 or less restores
 * that default. The width and the resolution choose the progress dialog's
 * template; the height is not used. On Windows the dialogs' own size still
 * follows the system's font. */
SX_EXPORT void SX_API SxSysUiSetScreen(int32_t width, int32_t height, int32_t dotsPerInch);

#ifdef __cplusplus
static_assert(offsetof(SxUiEvent, Color) == 16, "layout");
static_assert(offsetof(SxUiEvent, Dialog) == 24, "layout");
static_assert(offsetof(SxUiEvent, Text) == (sizeof(void*) == 8 ? 32 : 28), "layout");
static_assert(offsetof(SxUiEvent, Name) == (sizeof(void*) == 8 ? 40 : 32), "layout");
static_assert(sizeof(SxUiEvent) == (sizeof(void*) == 8 ? 48 : 36), "layout");
#endif

#endif /* SXSYS_H */

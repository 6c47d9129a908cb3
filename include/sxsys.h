/**
 * @file sxsys.h
 * @brief The few platform functions a host of sxscan needs: movable global
 * memory blocks, and the observer of the library's dialogs.
 *
 * Memory blocks have the semantics of the Windows global memory functions. A
 * host makes its transfer buffer with them and unlocks and frees the two
 * blocks of every ::SxValueList that SxQueryData() hands over. On Windows
 * they are the system's own blocks (the functions forward to GlobalAlloc()
 * and its family), so a host there may use either set of functions; on Linux
 * they are the library's. An unknown or already freed handle is refused,
 * never a crash (on Windows, as the system refuses it).
 *
 * These functions may be called from any thread at any time, also from
 * within the transfer callback.
 */
#ifndef SXSYS_H
#define SXSYS_H

#include "sxscan.h"

/** @defgroup memory Memory blocks
 * @{ */
/** A fixed block: its handle is its address; it grows only by moving (with
 * #SX_GMEM_MOVEABLE given to SxSysGlobalReAlloc()), which gives it a new
 * handle. */
#define SX_GMEM_FIXED 0x0000
/** A movable block, known by a handle that stays the same when it moves. */
#define SX_GMEM_MOVEABLE 0x0002
/** Zero-filled when made, and zero-filled where it grows. */
#define SX_GMEM_ZEROINIT 0x0040
/** A movable, zero-filled block: what hosts and the library make. */
#define SX_GHND (SX_GMEM_MOVEABLE | SX_GMEM_ZEROINIT)

/** A memory block's handle. */
typedef void* SxHandle;

/** Makes a block.
 * @param flags #SX_GMEM_FIXED or #SX_GMEM_MOVEABLE, with #SX_GMEM_ZEROINIT.
 * @param bytes its size (a block of 0 bytes still has an address of its own).
 * @return its handle, or null on failure. */
SX_EXPORT SxHandle SX_API SxSysGlobalAlloc(uint32_t flags, size_t bytes);
/** Gives a block a new size, keeping its content. A movable block may move,
 * also while locked (its handle and lock count stay; lock it again for the
 * new address); #SX_GMEM_ZEROINIT zero-fills what it grows by.
 * @return the block's handle (a fixed block that moved has a new one), or
 * null on failure, the block then unchanged. */
SX_EXPORT SxHandle SX_API SxSysGlobalReAlloc(SxHandle handle, size_t bytes, uint32_t flags);
/** Adds one to a movable block's lock count. @return the block's address,
 * or null for an unknown handle. */
SX_EXPORT void* SX_API SxSysGlobalLock(SxHandle handle);
/** Takes one from a movable block's lock count. @return nonzero while the
 * block is still locked, 0 once it is not and for an unknown handle. A
 * fixed block has no lock count: Linux answers 0, Windows as the system
 * does. */
SX_EXPORT int32_t SX_API SxSysGlobalUnlock(SxHandle handle);
/** Frees a block, locked or not. @return null on success, the handle
 * itself when it is unknown or already freed. */
SX_EXPORT SxHandle SX_API SxSysGlobalFree(SxHandle handle);
/** @return a block's size in bytes, 0 for an unknown handle. */
SX_EXPORT size_t SX_API SxSysGlobalSize(SxHandle handle);
/** @return the handle of the block whose (locked) address this is, null
 * for any other address. */
SX_EXPORT SxHandle SX_API SxSysGlobalHandle(const void* lockedAddress);
/** @return a block's lock count, 0 for an unknown handle. */
SX_EXPORT uint32_t SX_API SxSysGlobalLockCount(SxHandle handle);
/** The number of blocks made by SxSysGlobalAlloc() that are still alive:
 * the host's, the library's own (the settings' buffers, the ring of
 * buffered mode) and the lists SxQueryData() hands over, until freed.
 *
 * A host's leak check reads it before SxLoad() and again after SxFree(),
 * having freed its buffers and every list: the two counts are equal, in
 * both transfer modes. While a source is open the library holds blocks of
 * its own (four while open, and the buffers of buffered mode while
 * #CAP_BUFFERING is set).
 *
 * On Windows a movable block freed with GlobalFree() rather than
 * SxSysGlobalFree() no longer counts either, and blocks the host makes with
 * GlobalAlloc() itself are not counted. */
SX_EXPORT size_t SX_API SxSysGlobalBlockCount(void);
/** @} */

/** @defgroup observer Dialog observer
 * The library's dialogs (the lamp warm-up wait and the progress dialog with
 * its Cancel button, shown while #CAP_INDICATORS is set) live in a headless
 * dialog model on Linux. A host that wants to show them installs an
 * observer, which is told of every dialog opened, changed and closed, and may
 * press a dialog's buttons.
 *
 * On Windows the dialogs are real windows made from the library's dialog
 * resources; the observer is told of the same changes, and a press reaches
 * the dialog as a click does. While an observer is installed a message box
 * is not shown: the observer is told of it and it is answered with OK.
 *
 * Threads: every notification about a dialog arrives on the thread that owns
 * it, synchronously, while that thread waits:
 *   - the warm-up dialog: the host's thread inside SxAcquire() when the scan
 *     parameters are refused for a cold lamp, or when a page start is refused
 *     in direct mode; the library's read thread when a page start is refused
 *     in buffered mode;
 *   - the progress dialog: the host's thread inside SxAcquire() in direct
 *     mode, the library's read thread in buffered mode.
 * Cursor and message-box notifications come on the thread that causes them.
 * An observer may call SxSysUiPress(), SxSysUiEscape() and SxSysUiGetText()
 * from within a notification or from any other thread; it must not call the
 * eight scan functions from within one (they refuse while SxAcquire() runs).
 * @{ */

/** A dialog's handle, valid from its #SX_UI_OPEN to its #SX_UI_CLOSE. */
typedef void* SxDialog;

#define SX_UI_OPEN 1       /**< A dialog opened. Name: its template; Text: its caption; Value: 1 modal, 0 modeless. */
#define SX_UI_CLOSE 2      /**< The dialog is gone; its handle is no longer valid. */
#define SX_UI_CAPTION 3    /**< Text: the dialog's new caption. */
#define SX_UI_TEXT 4       /**< Control, Text: a control's new text. */
#define SX_UI_SHOW 5       /**< Control, Value: 1 shown, 0 hidden. */
#define SX_UI_ENABLE 6     /**< Control, Value: 1 enabled, 0 disabled. */
#define SX_UI_FILL 7       /**< Control: Value pixels of Extent filled from the left, in Color. */
#define SX_UI_CURSOR 8     /**< Value: #SX_UI_CURSOR_ARROW or #SX_UI_CURSOR_WAIT; no dialog. */
#define SX_UI_MESSAGEBOX 9 /**< Text: the message; Name: the caption; Value: the box style; no dialog. */

#define SX_UI_CURSOR_ARROW 0 /**< The ordinary cursor. */
#define SX_UI_CURSOR_WAIT 1  /**< The wait cursor. */

/** The dialogs' background (the system's menu colour): a fill in it clears. */
#define SX_UI_COLOR_BACKGROUND 0xF0F0F0u

/** The caption, as a control for SxSysUiGetText(). */
#define SX_UI_CAPTION_ID 0
/** The identifier of a dialog's Cancel button. */
#define SX_UI_CANCEL_ID 2

/** One notification; its texts are valid during the call only. */
typedef struct SxUiEvent {
  int32_t Kind;      /**< What happened: #SX_UI_OPEN ... #SX_UI_MESSAGEBOX. */
  int32_t Control;   /**< The control's identifier, or 0. */
  int32_t Value;     /**< As the kind says. */
  int32_t Extent;    /**< #SX_UI_FILL: the bar's full width in pixels. */
  uint32_t Color;    /**< #SX_UI_FILL: 0x00BBGGRR. */
  uint32_t Reserved; /**< 0. */
  SxDialog Dialog;   /**< The dialog; null for cursor and message box. */
  const char* Text;  /**< As the kind says, or null. */
  const char* Name;  /**< As the kind says, or null. */
} SxUiEvent;

/** The host's observer: called with each notification and the context given
 * to SxSysUiSetObserver(). */
typedef void(SX_API* SxUiObserver)(const SxUiEvent* event, void* context);

/** Installs the observer (null removes it); install it before SxAcquire(). */
SX_EXPORT void SX_API SxSysUiSetObserver(SxUiObserver observer, void* context);
/** Presses a visible, enabled button of an open dialog, as a user's click
 * does: the dialog acts on it the next time its owner thread handles its
 * messages. @return 1 when the press was queued, 0 when refused. */
SX_EXPORT int32_t SX_API SxSysUiPress(SxDialog dialog, int32_t control);
/** The Escape key: queues the Cancel command (#SX_UI_CANCEL_ID) even where
 * no Cancel button is visible. @return 1 when queued, 0 when the dialog is
 * not open. */
SX_EXPORT int32_t SX_API SxSysUiEscape(SxDialog dialog);
/** Copies a control's text (#SX_UI_CAPTION_ID: the caption) into `text`,
 * cut to `size` - 1 characters and a NUL. @return its length, or -1 for no
 * such dialog or control. */
SX_EXPORT int32_t SX_API SxSysUiGetText(SxDialog dialog, int32_t control, char* text, uint32_t size);
/** Declares the screen the dialogs are shown on (default 1920 x 1080 at 96
 * dots per inch; on Windows, the real screen); a value of 0 or less restores
 * that default. The width and the resolution choose the progress dialog's
 * template; the height is not used. On Windows the dialogs' own size still
 * follows the system's font. */
SX_EXPORT void SX_API SxSysUiSetScreen(int32_t width, int32_t height, int32_t dotsPerInch);
/** @} */

#ifdef __cplusplus
static_assert(offsetof(SxUiEvent, Color) == 16, "layout");
static_assert(offsetof(SxUiEvent, Dialog) == 24, "layout");
static_assert(offsetof(SxUiEvent, Text) == (sizeof(void*) == 8 ? 32 : 28), "layout");
static_assert(offsetof(SxUiEvent, Name) == (sizeof(void*) == 8 ? 40 : 32), "layout");
static_assert(sizeof(SxUiEvent) == (sizeof(void*) == 8 ? 48 : 36), "layout");
#endif

#endif /* SXSYS_H */

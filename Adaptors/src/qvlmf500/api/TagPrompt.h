#pragma once

#include "QvlExport.h"

/// The prompt that stands while an operation works on a tag and may have to wait for it. The library has no window of
/// its own: a host puts its own in, a dialog or a line on a console. Without one, operations make one attempt at a tag
/// and do not wait.
class QVL_API TagPromptSurface {
  public:
    virtual ~TagPromptSurface() = default;

    /// Called on the prompt's own thread when an operation begins that may wait. Returns promptly and does not call the
    /// adaptor: the operation holds the reader lock.
    /// @return false if no prompt could be made.
    virtual bool show() = 0;
    /// Called on the same thread when the prompt goes away, after a show() that gave true. Returns promptly and does
    /// not call the adaptor: the next operation may hold the reader lock and wait for this prompt to go away.
    virtual void hide() = 0;
};

/// Puts `surface` in place for all adaptors of the process; null, the default, takes it out again. Another surface than
/// the one in place closes a standing prompt and waits for its end, after which the old surface may be destroyed. A
/// forked child has no surface in place. Not from show() or hide(), which must not wait for a thread that is inside an
/// operation either.
QVL_API void setTagPromptSurface(TagPromptSurface* surface);

/// What a Cancel button calls, from any thread: the prompt goes away and the wait under it ends with 3121. Harmless
/// without a prompt.
QVL_API void cancelTagPrompt();

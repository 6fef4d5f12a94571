#pragma once

#include "ManualResetEvent.h"

/// The prompt of the process, as operations use it. Its presence is what lets a wait for a tag go on, and its closing
/// ends the wait.

/// What became of a wish for a prompt.
enum class PromptStart {
    standsAlready,  ///< Somebody else's prompt stands; it is shared.
    nobodyShows,    ///< No host has put a prompt in.
    started,        ///< The prompt is up, or was tried and could not be made.
    noThread,       ///< Its thread could not be started.
};
/// `owner` is whoever may end it, see endTagPrompt.
PromptStart startTagPrompt(const void* owner);

/// Asks the prompt to go away. Does not wait; harmless without a prompt.
void closeTagPrompt();

/// True while a prompt stands. A wait loop resets the event, tests this, and then waits on the event: the prompt goes
/// away first and signals last, so no close is lost.
bool tagPromptStands();
platform::ManualResetEvent& tagPromptEvent();

/// Closes the prompt if this owner has started it, and returns when it has gone.
void endTagPrompt(const void* owner);

#pragma once

// Rules that read $_SESSION decide when the script has started its session.

// Wraps the session module's request start and the functions that start a
// session. False, with the reason logged, when the session module can't be
// hooked; the cache then stays off.
bool installSessionHooks();
void restoreSessionHooks();
// The session has just started: decide now, in the middle of the script.
void sessionResolved();

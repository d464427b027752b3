// The one function through which the support sources report; `messages` defines it.
#pragma once

// Traces a message. A format that begins with "%l", a digit and a blank loses these four
// characters: the level is not evaluated.
[[gnu::format(printf, 1, 2)]] void trace(const char* format, ...);

// The one function through which the support sources report; `messages` defines it.
#pragma once

// Traces a message. A format that begins with "%l", a digit and a blank loses these four
// characters: the level is not evaluated. The compiler cannot check the formats, because it does
// not know the prefix: every call has a test that reads its text.
void trace(const char* format, ...);

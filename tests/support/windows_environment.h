// setenv and unsetenv for the tests of the Windows build, whose C library
// has only _putenv_s. Included ahead of every test source there.
#pragma once

#if defined(_WIN32)
#include <stdlib.h>

inline int setenv(const char* name, const char* value, int overwrite) {
    if (!overwrite && getenv(name) != nullptr) return 0;
    return _putenv_s(name, value) == 0 ? 0 : -1;
}

inline int unsetenv(const char* name) { return _putenv_s(name, "") == 0 ? 0 : -1; }
#endif

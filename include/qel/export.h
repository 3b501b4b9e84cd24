// Symbol visibility for the shared library.
#pragma once

#if defined(QEL_BUILDING_LIBRARY)
#define QEL_API __attribute__((visibility("default")))
#else
#define QEL_API
#endif

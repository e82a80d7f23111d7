// Export macro for the public API of the shared libraries: everything else is hidden.
#pragma once

#define KEL_EXPORT __attribute__((visibility("default")))

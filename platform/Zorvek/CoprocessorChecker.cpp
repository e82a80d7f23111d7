#include "Zorvek/CoprocessorChecker.h"

KEL_DEFINE_ENTITY_TYPE(Zorvek::CoprocessorChecker, "Zorvek::CoprocessorChecker")

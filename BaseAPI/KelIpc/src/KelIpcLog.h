#ifndef KEL_IPC_LOG_H
#define KEL_IPC_LOG_H

#include "KelLogger.h"

// Every line of the library is written at level 1 with the source path and the function name that
// programs filter on, so both are passed explicitly rather than taken from __FILE__ and __func__.
#define KEL_IPC_LOG(path, function, ...) \
    KelLogger::GetInstance()->Log(path, __LINE__, function, " ", "", KEL_LOG_ERROR, __VA_ARGS__)

#endif  // KEL_IPC_LOG_H

#include "CancellationOff.h"

#include <pthread.h>

namespace platform {

CancellationOff::CancellationOff() noexcept { ::pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &mFormer); }

CancellationOff::~CancellationOff() { ::pthread_setcancelstate(mFormer, nullptr); }

}  // namespace platform

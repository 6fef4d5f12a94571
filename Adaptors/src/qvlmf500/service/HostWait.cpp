#include "HostWait.h"

namespace {

thread_local HostWait* inPlace = nullptr;

}  // namespace

void setHostWait(HostWait* wait) { inPlace = wait; }

HostWait* hostWait() { return inPlace; }

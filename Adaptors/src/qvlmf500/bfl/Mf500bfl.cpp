#include "Mf500bfl.h"

#include "KeyPool.h"

Mf500bfl::Mf500bfl() { seedKeyPool(); }

Mf500bfl::~Mf500bfl() = default;

BflType Mf500bfl::getBflType() { return BflTypeMf500; }

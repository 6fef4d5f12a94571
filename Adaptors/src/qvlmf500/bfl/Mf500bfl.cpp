#include "Mf500bfl.h"

Mf500bfl::Mf500bfl() = default;

Mf500bfl::~Mf500bfl() = default;

BflType Mf500bfl::getBflType() { return BflTypeMf500; }

#pragma once

#include "Qvl14443bfl.h"

/// Driver of an MF RC500 reader. It finds its device by itself; a device name plays no part.
class QVL_API Mf500bfl : public Qvl14443bfl {
  public:
    Mf500bfl();
    ~Mf500bfl() override;

    BflType getBflType() override;
};

#pragma once

#include "QvlExport.h"

#include <cstdint>

/// What can travel as one value of a QVLParamCollection. Objects are destroyed by their exact type.
class QVL_API QVLParameter {
  public:
    QVLParameter() = default;
    QVLParameter(const QVLParameter&) {}
    QVLParameter& operator=(const QVLParameter&) { return *this; }

    /// Writes the object into a new buffer of exactly `length` bytes, which the caller deletes as an array.
    /// @return 3000, or 3038 if there is no memory; then `length` is 0 and `data` null.
    virtual int serialize(std::uint32_t& length, std::uint8_t*& data) = 0;
    /// Replaces the object's content from `length` bytes at `data`. @return 3000, or the status of the read that
    /// failed.
    virtual int deserialize(std::uint32_t length, const std::uint8_t* data) = 0;

  protected:
    ~QVLParameter() = default;
};

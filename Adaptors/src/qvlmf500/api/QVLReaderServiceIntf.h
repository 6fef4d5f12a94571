#pragma once

#include "QvlExport.h"

/// The host's service object, implemented by the host. It is given to the adaptor at creation and outlives it.
///
/// The adaptor calls it on the thread of the operation that noticed the change, with the reader lock held. It may call
/// back into the adaptor. It must not wait for another thread that uses the adaptor, and must not delete the adaptor.
/// An exception that it throws is dropped.
class QVL_API QVLReaderServiceIntf {
  public:
    QVLReaderServiceIntf() = default;
    QVLReaderServiceIntf(const QVLReaderServiceIntf&) {}
    QVLReaderServiceIntf& operator=(const QVLReaderServiceIntf&) { return *this; }

    /// The reader has become usable (true) or has been lost (false).
    virtual void readerStateChanged(bool ready) = 0;
    /// Reserved; this adaptor never calls it.
    virtual void readerMessage(int code, const char* text) = 0;

  protected:
    ~QVLReaderServiceIntf() = default;
};

#include "LogService.h"
#include "QvlMf500ReaderImpl.h"

#include <exception>

ReaderImpl* createAdaptorInstance(QVLReaderServiceIntf* service) {
    try {
        ReaderImpl* adaptor = new QvlMf500ReaderImpl(service);
        QVL_LOG(kLogFailure, "QvlMf500ReaderImpl::successfully create an adaptor instance - QvlMf500ReaderImpl.\n");
        return adaptor;
    } catch (const std::exception&) {
        QVL_LOG(kLogFailure, "QvlMf500ReaderImpl::cannot create an adaptor instance.\n");
        return nullptr;
    }
}

// The answers of an adaptor that does not provide an operation, and the release of what an adaptor hands out.

#include "ReaderImpl.h"

#include <cstring>
#include <new>

namespace {

char* copyText(const char* text) {
    if (text == nullptr) return nullptr;
    const std::size_t size = std::strlen(text) + 1;
    char* copy = new (std::nothrow) char[size];
    if (copy != nullptr) std::memcpy(copy, text, size);
    return copy;
}

}  // namespace

ReaderImpl::ReaderImpl() : mDeviceInstanceID(nullptr) {}

ReaderImpl::ReaderImpl(const ReaderImpl& other) : mDeviceInstanceID(copyText(other.mDeviceInstanceID)) {}

ReaderImpl& ReaderImpl::operator=(const ReaderImpl& other) {
    if (this != &other) setDeviceInstanceID(other.mDeviceInstanceID);
    return *this;
}

ReaderImpl::~ReaderImpl() { delete[] mDeviceInstanceID; }

const char* ReaderImpl::getDeviceInstanceID() const { return mDeviceInstanceID; }

void ReaderImpl::setDeviceInstanceID(const char* id) {
    char* copy = copyText(id);
    delete[] mDeviceInstanceID;
    mDeviceInstanceID = copy;
}

int ReaderImpl::getReaderId(std::uint8_t*, std::uint16_t& idLen) {
    idLen = 0;
    return kReaderFailed;
}

int ReaderImpl::getReaderFwVersion(std::uint8_t*, std::uint16_t& versionLen) {
    versionLen = 0;
    return kReaderFailed;
}

int ReaderImpl::switchReaderLED(std::uint8_t, std::uint8_t, std::uint8_t) { return kReaderFailed; }

void ReaderImpl::setTagPromptFlag(bool) {}

void ReaderImpl::resetSuspendTime(std::uint32_t) {}

void ReaderImpl::scanUSBDevice(int) {}

int ReaderImpl::getTagId(int, TagAppType, short, TagUID*&, AuthKeyMode, const std::uint8_t*, bool) {
    return kNotImplemented;
}

int ReaderImpl::getAllTagId(int, TagAppType, short, AuthKeyMode, const std::uint8_t*, short&, TagUID*&) {
    return kNotImplemented;
}

int ReaderImpl::suspendPoll(TagUID&) { return kNotImplemented; }

int ReaderImpl::resumePoll(TagUID&) { return kNotImplemented; }

int ReaderImpl::formatTag(int, TagAppType, std::uint8_t*, TagUID*&, std::uint8_t*, int&, OpResultCode*&) {
    return kNotImplemented;
}

int ReaderImpl::unformatTag(int, TagAppType, std::uint8_t*, TagUID*&, int*) { return kNotImplemented; }

int ReaderImpl::initApp(int, TagAppType, short, const std::uint8_t*, const std::uint8_t*, short, short, const TagUID&,
                        const std::uint8_t*, const std::uint8_t*, DataAccControl, int&, int&, OpResultCode*&) {
    return kNotImplemented;
}

int ReaderImpl::resetApp(int, TagAppType, short, const std::uint8_t*, short, short, const TagUID&, AuthKeyMode,
                         const std::uint8_t*, const std::uint8_t*, const std::uint8_t*, int*) {
    return kNotImplemented;
}

int ReaderImpl::removeAppSector(int, TagAppType, short, const std::uint8_t*, short, short, short, const TagUID&,
                                AuthKeyMode, const std::uint8_t*, const std::uint8_t*, const std::uint8_t*, int*) {
    return kNotImplemented;
}

int ReaderImpl::setDataBlockType(int, TagAppType, short, const TagUID&, const std::uint8_t*, const std::uint8_t*, short,
                                 short, DataAccControl, unsigned int, AuthKeyMode, const std::uint8_t*) {
    return kNotImplemented;
}

int ReaderImpl::setTrailerBlockType(int, TagAppType, short, const TagUID&, AuthKeyMode, const std::uint8_t*,
                                    const std::uint8_t*, DataAccControl, AuthKeyMode, const std::uint8_t*, short, int&,
                                    OpResultCode*&) {
    return kNotImplemented;
}

int ReaderImpl::setKey(int, TagAppType, short, const TagUID&, AuthKeyMode, const std::uint8_t*, const std::uint8_t*,
                       const std::uint8_t*, short, AuthKeyMode, const std::uint8_t*, int&, OpResultCode*&) {
    return kNotImplemented;
}

int ReaderImpl::getAllAppId(int, TagAppType, const TagUID&, short&, short*&, AuthKeyMode, const std::uint8_t*) {
    return kNotImplemented;
}

int ReaderImpl::getAppIdDir(int, TagAppType, const TagUID&, short*, AuthKeyMode, const std::uint8_t*) {
    return kNotImplemented;
}

int ReaderImpl::getAppData(int, TagAppType, const TagUID&, short, AuthKeyMode, const std::uint8_t*, std::uint8_t*&,
                           int&, AuthKeyMode, const std::uint8_t*, int&, OpResultCode*&) {
    return kNotImplemented;
}

int ReaderImpl::setAppData(int, TagAppType, const TagUID&, short, AuthKeyMode, const std::uint8_t*, std::uint8_t*, int,
                           AuthKeyMode, const std::uint8_t*, const std::uint8_t*, int&, OpResultCode*&) {
    return kNotImplemented;
}

int ReaderImpl::getBlockData(int, TagAppType, const TagUID&, short, AuthKeyMode, const std::uint8_t*, short, short,
                             std::uint8_t*&, int&, AuthKeyMode, const std::uint8_t*, int&, OpResultCode*&) {
    return kNotImplemented;
}

int ReaderImpl::getBlockData(int, TagAppType, const TagUID&, short, AuthKeyMode, const std::uint8_t*, short, short,
                             std::uint8_t*&, int&, AuthKeyMode, const std::uint8_t*, int*) {
    return kNotImplemented;
}

int ReaderImpl::setBlockData(int, TagAppType, const TagUID&, short, AuthKeyMode, const std::uint8_t*, short, short,
                             std::uint8_t*, int, AuthKeyMode, const std::uint8_t*, const std::uint8_t*, int&,
                             OpResultCode*&) {
    return kNotImplemented;
}

int ReaderImpl::setBlockData(int, TagAppType, const TagUID&, short, AuthKeyMode, const std::uint8_t*, short, short,
                             std::uint8_t*, int, AuthKeyMode, const std::uint8_t*, int*) {
    return kNotImplemented;
}

int ReaderImpl::getValue(int, TagAppType, const TagUID&, short, AuthKeyMode, const std::uint8_t*, int, int&,
                         AuthKeyMode, const std::uint8_t*) {
    return kNotImplemented;
}

int ReaderImpl::setValue(int, TagAppType, const TagUID&, short, AuthKeyMode, const std::uint8_t*, int, int, AuthKeyMode,
                         const std::uint8_t*) {
    return kNotImplemented;
}

int ReaderImpl::adjustValue(int, TagAppType, const TagUID&, short, AuthKeyMode, const std::uint8_t*, int,
                            ValueBlockOper, unsigned int, int, AuthKeyMode, const std::uint8_t*) {
    return kNotImplemented;
}

int ReaderImpl::initDecrementOnlyBlock(int, TagAppType, const TagUID&, short, const std::uint8_t*, const std::uint8_t*,
                                       int, int, AuthKeyMode, const std::uint8_t*) {
    return kNotImplemented;
}

int ReaderImpl::getBlockAccessMode(int, TagAppType, const TagUID&, short, AuthKeyMode, const std::uint8_t*, int,
                                   DataAccControl&, AuthKeyMode, const std::uint8_t*) {
    return kNotImplemented;
}

int ReaderImpl::getSectorAccessMode(int, TagAppType, const TagUID&, short, AuthKeyMode, const std::uint8_t*, short,
                                    DataAccControl*, AuthKeyMode, const std::uint8_t*) {
    return kNotImplemented;
}

int ReaderImpl::addAppSector(int, TagAppType, short, const std::uint8_t*, const std::uint8_t*, short, short,
                             const TagUID&, const std::uint8_t*, const std::uint8_t*, DataAccControl, int&, int&,
                             OpResultCode*&) {
    return kNotImplemented;
}

int ReaderImpl::haltAllTag(bool) { return kNotImplemented; }

int ReaderImpl::runCommand(int, QVLParamCollection&, QVLParamCollection*&) { return kNotImplemented; }

int ReaderImpl::freeMemory(QVLParamCollection* object) {
    delete object;
    return kMemoryOk;
}

int ReaderImpl::freeMemory(EventObject* object) {
    delete object;
    return kMemoryOk;
}

int ReaderImpl::freeMemory(std::uint8_t* object) {
    delete[] object;
    return kMemoryOk;
}

int ReaderImpl::freeMemory(short* object) {
    delete[] object;
    return kMemoryOk;
}

int ReaderImpl::freeMemory(OpResultCode* object) {
    delete[] object;
    return kMemoryOk;
}

int ReaderImpl::freeMemory(TagUID* object) {
    delete[] object;
    return kMemoryOk;
}

int ReaderImpl::openCard(int, const TagUID&, std::uint8_t&, std::uint8_t*& ats, int& atsLength) {
    ats = nullptr;
    atsLength = 0;
    return kNotImplemented;
}

int ReaderImpl::freeMemory(ReaderImpl*) { return kMemoryOk; }

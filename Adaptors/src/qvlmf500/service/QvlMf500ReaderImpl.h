#pragma once

#include "NamedMutex.h"
#include "Qvl14443bfl.h"
#include "QvlTcl.h"
#include "ReaderImpl.h"
#include "USBFileIO.h"

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>

/// The adaptor. It has no worker thread: every operation runs on the thread of its caller, and the one lock under which
/// all tag work runs orders threads and processes. It works with the driver that the last device scan chose.
class QvlMf500ReaderImpl : public virtual ReaderImpl {
  public:
    explicit QvlMf500ReaderImpl(QVLReaderServiceIntf* service);
    ~QvlMf500ReaderImpl() override;
    QvlMf500ReaderImpl(const QvlMf500ReaderImpl&) = delete;
    QvlMf500ReaderImpl& operator=(const QvlMf500ReaderImpl&) = delete;

    // Lifecycle.cpp
    const char* getAdaptorName() override;
    void loadReaderConfig() override;
    bool initReader() override;
    bool stopReader() override;

    // DeviceChoice.cpp
    void scanUSBDevice(int event) override;

    // ReaderIdentity.cpp
    int getReaderId(std::uint8_t* id, std::uint16_t& idLen) override;
    int getReaderFwVersion(std::uint8_t* version, std::uint16_t& versionLen) override;
    int switchReaderLED(std::uint8_t led, std::uint8_t ctrl, std::uint8_t dur) override;

    // Polling.cpp
    bool pollTag(EventObject*& event, bool forced, bool ignoreSuspend) override;
    int suspendPoll(TagUID& tag) override;
    int resumePoll(TagUID& tag) override;
    void setTagPromptFlag(bool on) override;
    void resetSuspendTime(std::uint32_t ms) override;
    int haltAllTag(bool haltSelected) override;

    /// Puts up the prompt. @return true when the caller has to take it down with closeTagPrompt at the end of its
    /// operation; false when another prompt stands already, under which the operation may wait as well.
    virtual bool showTagPrompt();

  private:
    friend class ReaderLock;

    std::shared_ptr<Qvl14443bfl> driver() const { return mTcl->driver(); }
    /// The driver for an operation outside the lock, which counts as an operation of its own when nobody holds the
    /// lock.
    std::shared_ptr<Qvl14443bfl> idleDriver() const;
    void tellHost(bool ready) noexcept;

    // Lifecycle.cpp
    bool openAndConfigure();
    bool interfaceOpened(Qvl14443bfl& bfl);
    bool configured(Qvl14443bfl& bfl);
    void restoreLeds();
    void reopen(int bflStatus);
    void turnOff(Qvl14443bfl& bfl, const char* logged);

    // DeviceChoice.cpp
    static constexpr int kScanAfterFailedInit = 3;
    void scan(int event);
    void chooseDriver(int scanStatus);
    void useTama(const char* path);
    void useMf500(const char* path);
    void findUsbDll();

    // Polling.cpp
    void startReader();
    bool report(const TagUID& tag, EventObject*& event);
    int getTagIdOnce(TagUID& tag, bool forced);
    short piccActivateWakup(Qvl14443bfl& bfl, std::uint8_t* atq, std::uint8_t* sak, std::uint8_t* uid,
                            std::uint8_t* uidLen);

    using GetCurrentDevInstID = int (*)(char* buffer, int size, std::uint16_t* length);

    std::unique_ptr<platform::NamedMutex> mReaderMutex;  // null if it could not be made; all goes on without it
    std::atomic<std::int32_t> mPendingCalls{0};          // operations inside the lock, nested ones included
    std::atomic<std::uint32_t> mSuspendTime;             // ms to wait for a tag
    std::atomic<std::uint32_t> mDefaultSuspendTime;
    std::atomic<bool> mSuspended{false};
    std::atomic<bool> mTagPrompt{true};
    QVLReaderServiceIntf* mService;
    std::atomic<bool> mInitialised{false};
    std::atomic<bool> mCtrl{false};  // LED 3 is on
    std::atomic<std::uint8_t> mLED;  // last LED other than 3, kNoLed for none yet
    std::atomic<std::uint8_t> mDur;
    USBFileIO mUSBFileIO;
    std::unique_ptr<QvlTcl> mTcl;  // holds the one pointer to the driver
    GetCurrentDevInstID mGetCurrentDevInstID = nullptr;
    std::string mScannedPath;  // of the last scan; empty for the driver's default
    std::atomic<bool> mScanned{false};
};

#pragma once

#include "DeviceScan.h"
#include "FieldSearch.h"
#include "Process.h"
#include "QvlTcl.h"
#include "ReaderImpl.h"
#include "ReaderState.h"

#include <atomic>
#include <cstdint>
#include <memory>

struct SectorsToAdd;

/// The adaptor. It has no worker thread: every operation runs on the thread of its caller, and the one lock under which
/// all tag work runs orders threads and processes. It works with the driver that the last device scan chose.
class QvlMf500ReaderImpl : public virtual ReaderImpl, private TagFinder {
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

    // Search.cpp
    int getTagId(int readerId, TagAppType appType, short appId, TagUID*& tag, AuthKeyMode keyMode,
                 const std::uint8_t* key, bool halt) override;
    int getAllTagId(int readerId, TagAppType appType, short appId, AuthKeyMode keyMode, const std::uint8_t* key,
                    short& count, TagUID*& tags) override;

    // ApplicationOperations.cpp
    int getAllAppId(int readerId, TagAppType appType, const TagUID& tag, short& count, short*& appIds,
                    AuthKeyMode keyMode, const std::uint8_t* key) override;
    int getAppIdDir(int readerId, TagAppType appType, const TagUID& tag, short* directory, AuthKeyMode keyMode,
                    const std::uint8_t* key) override;

    int formatTag(int readerId, TagAppType appType, std::uint8_t* newKeyB, TagUID*& tag, std::uint8_t* newKeyA,
                  int& sectorCount, OpResultCode*& results) override;
    int unformatTag(int readerId, TagAppType appType, std::uint8_t* key, TagUID*& tag, int* statuses) override;

    int initApp(int readerId, TagAppType appType, short appId, const std::uint8_t* madKey,
                const std::uint8_t* sectorKey, short spareShort, short sectorCount, const TagUID& tag,
                const std::uint8_t* newKeyA, const std::uint8_t* newKeyB, DataAccControl access, int& done,
                int& resultCount, OpResultCode*& results) override;
    int addAppSector(int readerId, TagAppType appType, short appId, const std::uint8_t* madKey,
                     const std::uint8_t* sectorKey, short spareShort, short sectorCount, const TagUID& tag,
                     const std::uint8_t* newKeyA, const std::uint8_t* newKeyB, DataAccControl access, int& done,
                     int& resultCount, OpResultCode*& results) override;
    int removeAppSector(int readerId, TagAppType appType, short appId, const std::uint8_t* madKey, short spareShort,
                        short startIndex, short sectorCount, const TagUID& tag, AuthKeyMode keyMode,
                        const std::uint8_t* key, const std::uint8_t* newKeyA, const std::uint8_t* newKeyB,
                        int* statuses) override;
    int resetApp(int readerId, TagAppType appType, short appId, const std::uint8_t* madKey, short spareShort,
                 short sectorCount, const TagUID& tag, AuthKeyMode keyMode, const std::uint8_t* key,
                 const std::uint8_t* newKeyA, const std::uint8_t* newKeyB, int* statuses) override;
    int getAppData(int readerId, TagAppType appType, const TagUID& tag, short appId, AuthKeyMode keyMode,
                   const std::uint8_t* key, std::uint8_t*& data, int& dataLength, AuthKeyMode madKeyMode,
                   const std::uint8_t* madKey, int& resultCount, OpResultCode*& results) override;
    int setAppData(int readerId, TagAppType appType, const TagUID& tag, short appId, AuthKeyMode keyMode,
                   const std::uint8_t* key, std::uint8_t* data, int dataLength, AuthKeyMode madKeyMode,
                   const std::uint8_t* madKey, const std::uint8_t* fillBlock, int& resultCount,
                   OpResultCode*& results) override;

    // BlockOperations.cpp
    int getBlockData(int readerId, TagAppType appType, const TagUID& tag, short appId, AuthKeyMode keyMode,
                     const std::uint8_t* key, short startBlock, short blockCount, std::uint8_t*& data, int& dataLength,
                     AuthKeyMode madKeyMode, const std::uint8_t* madKey, int& resultCount,
                     OpResultCode*& results) override;
    int getBlockData(int readerId, TagAppType appType, const TagUID& tag, short appId, AuthKeyMode keyMode,
                     const std::uint8_t* key, short startBlock, short blockCount, std::uint8_t*& data, int& dataLength,
                     AuthKeyMode madKeyMode, const std::uint8_t* madKey, int* statuses) override;
    int setBlockData(int readerId, TagAppType appType, const TagUID& tag, short appId, AuthKeyMode keyMode,
                     const std::uint8_t* key, short startBlock, short blockCount, std::uint8_t* data, int dataLength,
                     AuthKeyMode madKeyMode, const std::uint8_t* madKey, const std::uint8_t* fillBlock,
                     int& resultCount, OpResultCode*& results) override;
    int setBlockData(int readerId, TagAppType appType, const TagUID& tag, short appId, AuthKeyMode keyMode,
                     const std::uint8_t* key, short startBlock, short blockCount, std::uint8_t* data, int dataLength,
                     AuthKeyMode madKeyMode, const std::uint8_t* madKey, int* statuses) override;

    // AccessOperations.cpp
    int getValue(int readerId, TagAppType appType, const TagUID& tag, short appId, AuthKeyMode keyMode,
                 const std::uint8_t* key, int block, int& value, AuthKeyMode madKeyMode,
                 const std::uint8_t* madKey) override;
    int setValue(int readerId, TagAppType appType, const TagUID& tag, short appId, AuthKeyMode keyMode,
                 const std::uint8_t* key, int block, int value, AuthKeyMode madKeyMode,
                 const std::uint8_t* madKey) override;
    int adjustValue(int readerId, TagAppType appType, const TagUID& tag, short appId, AuthKeyMode keyMode,
                    const std::uint8_t* key, int block, ValueBlockOper operation, unsigned int amount,
                    int transferBlock, AuthKeyMode madKeyMode, const std::uint8_t* madKey) override;
    int initDecrementOnlyBlock(int readerId, TagAppType appType, const TagUID& tag, short appId,
                               const std::uint8_t* newKeyA, const std::uint8_t* keyB, int block, int value,
                               AuthKeyMode madKeyMode, const std::uint8_t* madKey) override;

    int setDataBlockType(int readerId, TagAppType appType, short appId, const TagUID& tag, const std::uint8_t* newKeyA,
                         const std::uint8_t* keyB, short block, short blockKind, DataAccControl access,
                         unsigned int value, AuthKeyMode madKeyMode, const std::uint8_t* madKey) override;
    int setTrailerBlockType(int readerId, TagAppType appType, short appId, const TagUID& tag, AuthKeyMode keyMode,
                            const std::uint8_t* keyA, const std::uint8_t* keyB, DataAccControl access,
                            AuthKeyMode madKeyMode, const std::uint8_t* madKey, short sectorCount, int& resultCount,
                            OpResultCode*& results) override;
    int setKey(int readerId, TagAppType appType, short appId, const TagUID& tag, AuthKeyMode keyMode,
               const std::uint8_t* key, const std::uint8_t* newKeyA, const std::uint8_t* newKeyB, short sectorCount,
               AuthKeyMode madKeyMode, const std::uint8_t* madKey, int& resultCount, OpResultCode*& results) override;
    int getBlockAccessMode(int readerId, TagAppType appType, const TagUID& tag, short appId, AuthKeyMode keyMode,
                           const std::uint8_t* key, int block, DataAccControl& access, AuthKeyMode madKeyMode,
                           const std::uint8_t* madKey) override;
    int getSectorAccessMode(int readerId, TagAppType appType, const TagUID& tag, short appId, AuthKeyMode keyMode,
                            const std::uint8_t* key, short sectorIndex, DataAccControl* conditions,
                            AuthKeyMode madKeyMode, const std::uint8_t* madKey) override;

    // Commands.cpp
    int runCommand(int id, QVLParamCollection& in, QVLParamCollection*& out) override;
    int openCard(int readerId, const TagUID& tag, std::uint8_t& cid, std::uint8_t*& ats, int& atsLength) override;

    /// Puts up the prompt. @return true when the caller has to take it down with closeTagPrompt at the end of its
    /// operation; false when another prompt stands already, under which the operation may wait as well.
    virtual bool showTagPrompt();

  private:
    std::shared_ptr<Qvl14443bfl> driver() const final { return mTcl->driver(); }
    void tellHost(bool ready) noexcept;

    // Lifecycle.cpp
    bool use(const FoundReader& found);
    bool openAndConfigure();
    bool interfaceOpened(Qvl14443bfl& bfl);
    bool configured(Qvl14443bfl& bfl);
    void restoreLeds();
    bool revive();
    void reopen(int bflStatus, unsigned opening);
    void turnOffAndClose(const char* logged);

    // ReaderIdentity.cpp
    template <typename Ask>
    int askReader(Ask ask);

    // Polling.cpp
    void startReader();
    bool report(const TagUID& tag, EventObject*& event);
    int getTagIdOnce(TagUID& tag, bool forced) override;
    bool isReaderLost() const override;

    // TagOperation.h
    template <typename Body>
    int operateOn(const char* operation, const TagUID& tag, Body body);
    template <typename Body>
    int operateOnAny(const char* operation, TagUID*& tag, bool isPromptFirst, Body body);  // ApplicationOperations.cpp

    // ApplicationOperations.cpp
    int changeApp(bool isNew, TagAppType appType, const TagUID& tag, const SectorsToAdd& wanted, int& done,
                  int& resultCount, OpResultCode*& results);

    std::unique_ptr<QvlTcl> mTcl;  // holds the one pointer to the driver
    ReaderState mReader;
    std::atomic<std::uint32_t> mSuspendTime;  // ms to wait for a tag
    std::atomic<std::uint32_t> mDefaultSuspendTime;
    std::atomic<bool> mSuspended{false};
    std::atomic<bool> mTagPrompt{true};
    QVLReaderServiceIntf* mService;
    std::atomic<bool> mCtrl{false};  // LED 3 is on
    std::atomic<std::uint8_t> mLED;  // last LED other than 3, 0xFF for none yet
    std::atomic<std::uint8_t> mDur;
    DeviceScan mScan;
    FoundReader mFound;                // by the last scan
    std::shared_ptr<void> mOpenShare;  // of the driver in place, while this adaptor has it open
    GetCurrentDevInstID mGetCurrentDevInstID = nullptr;
    const std::uint32_t mGeneration = platform::processGeneration();
};

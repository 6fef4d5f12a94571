#pragma once

#include "NamedMutex.h"
#include "Qvl14443bfl.h"
#include "QvlTcl.h"
#include "ReaderImpl.h"
#include "USBFileIO.h"

#include <atomic>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

struct AppSectorChange;
struct AppSectorRemoval;
struct BlockAddress;
struct BlockResults;
struct BlockRun;
struct BlockTypeChange;
class DirectoryImage;
struct DirtyBlocks;
struct KeyUse;
struct ResolvedRun;
struct RunRequest;
struct SectorList;
struct SectorResults;
struct TrailerChange;

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

    // Search.cpp
    int getTagId(int readerId, TagAppType appType, short appId, TagUID*& tag, AuthKeyMode keyMode,
                 const std::uint8_t* key, bool halt) override;
    int getAllTagId(int readerId, TagAppType appType, short appId, AuthKeyMode keyMode, const std::uint8_t* key,
                    short& count, TagUID*& tags) override;

    // tagdata/Directory.cpp
    int getAllAppId(int readerId, TagAppType appType, const TagUID& tag, short& count, short*& appIds,
                    AuthKeyMode keyMode, const std::uint8_t* key) override;
    int getAppIdDir(int readerId, TagAppType appType, const TagUID& tag, short* directory, AuthKeyMode keyMode,
                    const std::uint8_t* key) override;

    // tagdata/Formatting.cpp
    int formatTag(int readerId, TagAppType appType, std::uint8_t* newKeyB, TagUID*& tag, std::uint8_t* newKeyA,
                  int& sectorCount, OpResultCode*& results) override;
    int unformatTag(int readerId, TagAppType appType, std::uint8_t* key, TagUID*& tag, int* statuses) override;

    // tagdata/Applications.cpp
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

    // tagdata/BlockData.cpp
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

    // tagdata/Values.cpp
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

    // tagdata/AccessRules.cpp
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

    /// Puts up the prompt. @return true when the caller has to take it down with closeTagPrompt at the end of its
    /// operation; false when another prompt stands already, under which the operation may wait as well.
    virtual bool showTagPrompt();

  private:
    friend class ReaderLock;
    friend class OperationFrame;

    bool isReady() const { return mInitialised && mOpened; }
    std::shared_ptr<Qvl14443bfl> driver() const { return mTcl->driver(); }
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
    void install(std::shared_ptr<Qvl14443bfl> bfl, const char* path);
    void findUsbDll();

    // Polling.cpp
    void startReader();
    bool report(const TagUID& tag, EventObject*& event);
    int getTagIdOnce(TagUID& tag, bool forced);
    short piccActivateWakup(Qvl14443bfl& bfl, std::uint8_t* atq, std::uint8_t* sak, std::uint8_t* uid,
                            std::uint8_t* uidLen);

    // Search.cpp
    int waitForAnyTag(TagUID& tag, bool forced);
    int findAppTag(const std::uint8_t* aid, TagUID& tag, const KeyUse& key, bool wait, bool forced);
    int lookForDirectory(const std::uint8_t* aid, TagUID& tag, const KeyUse& key, bool& found);

    // Commands.cpp
    using CardData = std::vector<std::uint8_t>;
    int runSend(QVLParamCollection& in, QVLParamCollection*& out);
    int runSendRaw(QVLParamCollection& in, QVLParamCollection*& out);
    int sendAndDeliver(TagUID& tag, std::uint8_t nad, CardData& command, bool retry, QVLParamCollection*& out);
    int runWaitForCard(QVLParamCollection& in, QVLParamCollection*& out);
    int runDeselect(QVLParamCollection& in, QVLParamCollection*& out);
    int runNfcRelay(QVLParamCollection& in, QVLParamCollection*& out);

    // CardSessions.cpp: 0 for success, except of the two loops
    int sendTCL(TagUID& tag, std::uint8_t nad, CardData& command, CardData& answer, bool retry);
    int waitForCardTCL(TagUID& tag, int timeout, std::uint8_t& cid, CardData& ats);
    int deselectTCL(TagUID& tag);
    int relayNFC(CardData& command, CardData& reply);
    int tclActiveIdleLoop(int timeout, std::uint8_t baudrate, std::uint8_t* atq, std::uint8_t* sak, std::uint8_t* uid,
                          std::uint8_t* uidLen);
    int tclActiveWakupLoop(int timeout, std::uint8_t baudrate, std::uint8_t* atq, std::uint8_t* sak, std::uint8_t* uid,
                           std::uint8_t uidLen);
    template <typename Activate>
    int waitForActivation(int timeout, Activate activate);
    short exchangeWithCard(std::uint8_t cid, std::uint8_t nad, CardData& command, CardData& answer);
    short fetchCardAts(std::uint8_t cid, CardData& ats);

    static constexpr std::uint8_t kIdleRequest = 0x26;    // REQA: idle tags
    static constexpr std::uint8_t kWakeUpRequest = 0x52;  // WUPA: halted ones as well

    // tagdata/Selection.cpp: a known tag. `tag` is the one that the caller named; its type is refreshed.
    int activateTag(int readerId, TagUID& tag);
    int waitForTag(std::uint8_t requestCode, TagUID& tag);
    int selectTag(std::uint8_t requestCode, TagUID& tag);
    short wakeByUid(Qvl14443bfl& bfl, const TagUID& tag, std::uint8_t& sak, bool& sakKnown);

    // tagdata/BlockAccess.cpp: the only place that reads and writes blocks.
    int authenticateKey(TagUID& tag, int blockAddress, const KeyUse& key);
    int getBlock(TagUID& tag, int sector, const KeyUse& key, int firstBlock, int blockCount, std::uint8_t* buffer,
                 bool authenticate, int* statuses);
    int setBlock(TagUID& tag, int sector, const KeyUse& key, int firstBlock, int blockCount, const std::uint8_t* data,
                 int dataLength, bool authenticate, int* statuses);
    template <typename Attempt>
    short tryThreeTimes(TagUID& tag, int base, const KeyUse& key, Attempt attempt);
    template <typename Move, typename Failed>
    int moveBlocks(TagUID& tag, int base, const KeyUse& key, const BlockRun& run, int* statuses, Move move,
                   Failed failed);

    // tagdata/Directory.cpp
    int checkAppType(TagUID& tag, const KeyUse& key, bool authenticate, int& kind);
    int readDirectory(TagUID& tag, const KeyUse& key, bool authenticate, DirectoryImage& image);
    int writeDirectory(TagUID& tag, const KeyUse& key, const DirectoryImage& image, const DirtyBlocks& dirty,
                       bool authenticate);
    int findAppSectors(std::uint16_t appId, TagUID& tag, const KeyUse& key, SectorList& list);
    int locateAppBlock(std::uint16_t appId, TagUID& tag, const KeyUse& key, int blockIndex, int& sector,
                       int& blockInSector);
    int locateAppRange(std::uint16_t appId, TagUID& tag, const KeyUse& key, int firstIndex, SectorList& list,
                       int& firstListIndex, int& offset);

    // tagdata/DirectoryTransactions.cpp
    int addMADAppSector(const AppSectorChange& change, TagUID& tag, bool isNew, SectorResults& out);
    void prepareSectors(const AppSectorChange& change, TagUID& tag, DirectoryImage& image, const SectorList& claimed,
                        int start, DirtyBlocks& dirty, SectorResults& out);
    int prepareSector(const AppSectorChange& change, TagUID& tag, int sector);
    int removeMADAppSector(const AppSectorRemoval& removal, TagUID& tag, int& lastStatus);
    int resetSector(const AppSectorRemoval& removal, TagUID& tag, int sector);

    // tagdata/Formatting.cpp
    struct FormatKeys {
        TagAppType appType;
        const std::uint8_t* keyA;
        const std::uint8_t* keyB;
    };
    int formatSectors(const FormatKeys& keys, TagUID& tag, int sectors, OpResultCode* records, bool& tagIsSelected);
    int unformatSectors(TagAppType appType, const KeyUse& key, TagUID& tag, int* statuses, int& last);

    // tagdata/Applications.cpp
    int changeApp(bool isNew, int readerId, TagAppType appType, TagUID& tag, const AppSectorChange& change, int& done,
                  int& resultCount, OpResultCode*& results);
    int addPlainSectors(const AppSectorChange& change, TagUID& tag, SectorResults& out);
    int addPlainSector(const AppSectorChange& change, TagUID& tag, int sector, bool isLast);
    int removePlainSectors(const AppSectorRemoval& removal, TagUID& tag, int& lastStatus);
    int clearDataBlocks(TagUID& tag, int sector, const KeyUse& key, int& lastStatus);

    // tagdata/Values.cpp
    int locateBlock(const BlockAddress& address, TagUID& tag, int& sector, int& blockInSector);
    int getAccessCode(TagUID& tag, int sector, const KeyUse& key, int blockInSector, DataAccControl& code);
    int checkHoldsValue(TagUID& tag, int sector, const KeyUse& key, int blockInSector);

    // tagdata/BlockData.cpp, AccessRules.cpp
    int resolveRun(const RunRequest& request, TagUID& tag, ResolvedRun& run);
    int readRun(const ResolvedRun& run, TagUID& tag, const KeyUse& key, BlockResults& out, std::uint8_t* data);
    int writeRun(const ResolvedRun& run, TagUID& tag, const KeyUse& key, BlockResults& out, const std::uint8_t* data,
                 int dataLength);
    int changeBlockType(const BlockTypeChange& change, TagUID& tag, int sector, int blockInSector,
                        std::uint8_t addressByte);
    template <typename Change>
    int changeTrailers(const TrailerChange& change, TagUID& tag, int& resultCount, OpResultCode*& results,
                       bool& tagIsSelected, Change changeOne);
    int listSectors(TagAppType appType, short appId, TagUID& tag, const KeyUse& madKey, int sectorCount,
                    SectorList& list);

    using GetCurrentDevInstID = int (*)(char* buffer, int size, std::uint16_t* length);

    std::unique_ptr<platform::NamedMutex> mReaderMutex;  // null if it could not be made; all goes on without it
    std::atomic<std::int32_t> mPendingCalls{0};          // operations inside the lock, nested ones included
    std::atomic<std::uint32_t> mSuspendTime;             // ms to wait for a tag
    std::atomic<std::uint32_t> mDefaultSuspendTime;
    std::atomic<bool> mSuspended{false};
    std::atomic<bool> mTagPrompt{true};
    QVLReaderServiceIntf* mService;
    std::atomic<bool> mInitialised{false};
    std::atomic<bool> mOpened{false};  ///< The driver in place is the one that was initialised.
    std::atomic<bool> mCtrl{false};    // LED 3 is on
    std::atomic<std::uint8_t> mLED;    // last LED other than 3, kNoLed for none yet
    std::atomic<std::uint8_t> mDur;
    USBFileIO mUSBFileIO;
    std::unique_ptr<QvlTcl> mTcl;  // holds the one pointer to the driver
    GetCurrentDevInstID mGetCurrentDevInstID = nullptr;
    std::optional<std::uint32_t> mHeldTagType;  // of the tag of the operation that runs; under the reader lock
    bool mSakSeen = false;                      // by the last selection, so that the type is the tag's own
    std::string mScannedPath;                   // of the last scan; empty for the driver's default
    std::atomic<bool> mScanned{false};
};

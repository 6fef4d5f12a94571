#pragma once

#include "EventObject.h"
#include "OpResultCode.h"
#include "QVLParamCollection.h"
#include "QVLReaderServiceIntf.h"
#include "QvlExport.h"
#include "ServiceEnums.h"
#include "ServiceStatus.h"
#include "TagUID.h"

#include <cstdint>

/// What a host sees of an adaptor: the operations, with the answer of an adaptor that does not provide one.
///
/// Results are ServiceStatus codes: 3100 is success of a tag or reader operation. `readerId` is a value of the host
/// that is carried along. Everything that an operation hands out (`TagUID*&`, `uchar*&`, ...) is new and the host's:
/// release it with freeMemory only. Any thread may call any operation; operations on tags queue for
/// the reader, those that wait for a tag included. Null outputs, null data with a length, and null
/// keys that are to be written are refused with 3101.
///
/// Life of an adaptor: createAdaptorInstance, loadReaderConfig, initReader, any operations, stopReader, destruction
/// through the virtual destructor.
class QVL_API ReaderImpl {
  public:
    ReaderImpl();
    ReaderImpl(const ReaderImpl& other);
    ReaderImpl& operator=(const ReaderImpl& other);
    virtual ~ReaderImpl();

    /// Instance id of the reader's device, or null; the object keeps the text. Not beside initReader or stopReader.
    const char* getDeviceInstanceID() const;
    void setDeviceInstanceID(const char* id);

    /// Identity of the reader: at most 6 bytes.
    virtual int getReaderId(std::uint8_t* id, std::uint16_t& idLen);
    /// Firmware version as terminated text; the buffer holds 55 bytes.
    virtual int getReaderFwVersion(std::uint8_t* version, std::uint16_t& versionLen);
    /// LEDs 0 to 2 go on with `ctrl` 1 for the duration `dur`; LED 3 is a switch.
    virtual int switchReaderLED(std::uint8_t led, std::uint8_t ctrl, std::uint8_t dur);
    /// Name of the adaptor, a constant.
    virtual const char* getAdaptorName() = 0;
    /// Opens and configures the reader. @return true when it is ready.
    virtual bool initReader() = 0;
    /// Turns the field off and closes the reader. Always true.
    virtual bool stopReader() = 0;

    /// One short look into the field. True: a new tag was found, `event` is new, and the tag is halted, so that it
    /// reports once until it leaves the field. False: anything else, and `event` is not touched. Gives way to a running
    /// operation of this adaptor, and waits for those of others. `forced` finds tags that have reported already;
    /// `ignoreSuspend` polls in spite of suspendPoll. Opens the reader by itself when it is not ready.
    virtual bool pollTag(EventObject*& event, bool forced, bool ignoreSuspend) = 0;

    /// Waits for a tag, with an `appType` other than TagAppNone for one with a directory, with `appId` for one that
    /// carries the application. `tag` becomes an array of one. `halt` sends the tag and all others to sleep.
    virtual int getTagId(int readerId, TagAppType appType, short appId, TagUID*& tag, AuthKeyMode keyMode,
                         const std::uint8_t* key, bool halt);
    /// All tags in the field, waiting for the first. `tags` becomes an array of `count`, null for none.
    virtual int getAllTagId(int readerId, TagAppType appType, short appId, AuthKeyMode keyMode, const std::uint8_t* key,
                            short& count, TagUID*& tags);
    /// Stops pollTag for all tags until resumePoll. 3106 when suspended already; resumePoll 3107 when not.
    virtual int suspendPoll(TagUID& tag);
    virtual int resumePoll(TagUID& tag);

    /// Gives a factory tag, whichever lies in the field, the trailers of this system, with `appType` 1 or 2 a directory
    /// too. `tag` becomes the tag that was found. A null `newKeyA` is the directory's public key, without directory the
    /// factory key. One record a sector.
    virtual int formatTag(int readerId, TagAppType appType, std::uint8_t* newKeyB, TagUID*& tag, std::uint8_t* newKeyA,
                          int& sectorCount, OpResultCode*& results);
    /// Brings a formatted tag back to the factory state; `key` is its key B. `statuses`, if given, has an entry for
    /// each sector of the largest tag that is expected.
    virtual int unformatTag(int readerId, TagAppType appType, std::uint8_t* key, TagUID*& tag, int* statuses);

    /// Creates an application of `sectorCount` sectors in the tag's directory. `madKey` is key B of sector 0,
    /// `sectorKey` key B of free sectors (null: `madKey`). `access` is a data condition, 0 to 7. `done` sectors are
    /// finished; one record for each sector tried. `spareShort` has no effect.
    virtual int initApp(int readerId, TagAppType appType, short appId, const std::uint8_t* madKey,
                        const std::uint8_t* sectorKey, short spareShort, short sectorCount, const TagUID& tag,
                        const std::uint8_t* newKeyA, const std::uint8_t* newKeyB, DataAccControl access, int& done,
                        int& resultCount, OpResultCode*& results);
    /// removeAppSector from the application's first sector on.
    virtual int resetApp(int readerId, TagAppType appType, short appId, const std::uint8_t* madKey, short spareShort,
                         short sectorCount, const TagUID& tag, AuthKeyMode keyMode, const std::uint8_t* key,
                         const std::uint8_t* newKeyA, const std::uint8_t* newKeyB, int* statuses);
    /// Takes `sectorCount` sectors from an application, from list position `startIndex`; without a directory `appId` is
    /// the first sector. Their data is zeroed. `statuses`, if given, has an entry for each sector.
    virtual int removeAppSector(int readerId, TagAppType appType, short appId, const std::uint8_t* madKey,
                                short spareShort, short startIndex, short sectorCount, const TagUID& tag,
                                AuthKeyMode keyMode, const std::uint8_t* key, const std::uint8_t* newKeyA,
                                const std::uint8_t* newKeyB, int* statuses);

    /// Gives one data block an access condition and clears it; `blockKind` 2051 is a data block, 2052 a value block
    /// that starts with `value`. All of a trailer is written, so key A comes from the caller.
    virtual int setDataBlockType(int readerId, TagAppType appType, short appId, const TagUID& tag,
                                 const std::uint8_t* newKeyA, const std::uint8_t* keyB, short block, short blockKind,
                                 DataAccControl access, unsigned int value, AuthKeyMode madKeyMode,
                                 const std::uint8_t* madKey);
    /// Writes the conditions 12 (as delivered) or 13 (formatted) and both keys to whole sectors.
    virtual int setTrailerBlockType(int readerId, TagAppType appType, short appId, const TagUID& tag,
                                    AuthKeyMode keyMode, const std::uint8_t* keyA, const std::uint8_t* keyB,
                                    DataAccControl access, AuthKeyMode madKeyMode, const std::uint8_t* madKey,
                                    short sectorCount, int& resultCount, OpResultCode*& results);
    /// Replaces both keys of sectors.
    virtual int setKey(int readerId, TagAppType appType, short appId, const TagUID& tag, AuthKeyMode keyMode,
                       const std::uint8_t* key, const std::uint8_t* newKeyA, const std::uint8_t* newKeyB,
                       short sectorCount, AuthKeyMode madKeyMode, const std::uint8_t* madKey, int& resultCount,
                       OpResultCode*& results);

    /// The applications in a tag's directory, each once.
    virtual int getAllAppId(int readerId, TagAppType appType, const TagUID& tag, short& count, short*& appIds,
                            AuthKeyMode keyMode, const std::uint8_t* key);
    /// The directory as it stands: sixteen values, the entry of each sector at its number.
    virtual int getAppIdDir(int readerId, TagAppType appType, const TagUID& tag, short* directory, AuthKeyMode keyMode,
                            const std::uint8_t* key);
    /// getBlockData and setBlockData over all of an application.
    virtual int getAppData(int readerId, TagAppType appType, const TagUID& tag, short appId, AuthKeyMode keyMode,
                           const std::uint8_t* key, std::uint8_t*& data, int& dataLength, AuthKeyMode madKeyMode,
                           const std::uint8_t* madKey, int& resultCount, OpResultCode*& results);
    virtual int setAppData(int readerId, TagAppType appType, const TagUID& tag, short appId, AuthKeyMode keyMode,
                           const std::uint8_t* key, std::uint8_t* data, int dataLength, AuthKeyMode madKeyMode,
                           const std::uint8_t* madKey, const std::uint8_t* fillBlock, int& resultCount,
                           OpResultCode*& results);
    /// Moves a run of data blocks: from an absolute block, or with a directory from a block index of an application.
    /// `blockCount` 999 is all to the end. Sector by sector, one record a block, so that a run can half succeed (3132);
    /// failed blocks read as zero. Short data is padded with zeroes, or with the 16 bytes of `fillBlock`.
    virtual int getBlockData(int readerId, TagAppType appType, const TagUID& tag, short appId, AuthKeyMode keyMode,
                             const std::uint8_t* key, short startBlock, short blockCount, std::uint8_t*& data,
                             int& dataLength, AuthKeyMode madKeyMode, const std::uint8_t* madKey, int& resultCount,
                             OpResultCode*& results);
    virtual int getBlockData(int readerId, TagAppType appType, const TagUID& tag, short appId, AuthKeyMode keyMode,
                             const std::uint8_t* key, short startBlock, short blockCount, std::uint8_t*& data,
                             int& dataLength, AuthKeyMode madKeyMode, const std::uint8_t* madKey, int* statuses);
    virtual int setBlockData(int readerId, TagAppType appType, const TagUID& tag, short appId, AuthKeyMode keyMode,
                             const std::uint8_t* key, short startBlock, short blockCount, std::uint8_t* data,
                             int dataLength, AuthKeyMode madKeyMode, const std::uint8_t* madKey,
                             const std::uint8_t* fillBlock, int& resultCount, OpResultCode*& results);
    virtual int setBlockData(int readerId, TagAppType appType, const TagUID& tag, short appId, AuthKeyMode keyMode,
                             const std::uint8_t* key, short startBlock, short blockCount, std::uint8_t* data,
                             int dataLength, AuthKeyMode madKeyMode, const std::uint8_t* madKey, int* statuses);

    /// Value blocks. 3120 of adjustValue means that nobody knows whether the change took place; it is never repeated.
    /// `transferBlock` -1 is the block itself.
    virtual int getValue(int readerId, TagAppType appType, const TagUID& tag, short appId, AuthKeyMode keyMode,
                         const std::uint8_t* key, int block, int& value, AuthKeyMode madKeyMode,
                         const std::uint8_t* madKey);
    virtual int setValue(int readerId, TagAppType appType, const TagUID& tag, short appId, AuthKeyMode keyMode,
                         const std::uint8_t* key, int block, int value, AuthKeyMode madKeyMode,
                         const std::uint8_t* madKey);
    virtual int adjustValue(int readerId, TagAppType appType, const TagUID& tag, short appId, AuthKeyMode keyMode,
                            const std::uint8_t* key, int block, ValueBlockOper operation, unsigned int amount,
                            int transferBlock, AuthKeyMode madKeyMode, const std::uint8_t* madKey);
    virtual int initDecrementOnlyBlock(int readerId, TagAppType appType, const TagUID& tag, short appId,
                                       const std::uint8_t* newKeyA, const std::uint8_t* keyB, int block, int value,
                                       AuthKeyMode madKeyMode, const std::uint8_t* madKey);
    /// The access condition of one block, and of a whole sector: three groups and the trailer.
    virtual int getBlockAccessMode(int readerId, TagAppType appType, const TagUID& tag, short appId,
                                   AuthKeyMode keyMode, const std::uint8_t* key, int block, DataAccControl& access,
                                   AuthKeyMode madKeyMode, const std::uint8_t* madKey);
    virtual int getSectorAccessMode(int readerId, TagAppType appType, const TagUID& tag, short appId,
                                    AuthKeyMode keyMode, const std::uint8_t* key, short sectorIndex,
                                    DataAccControl* conditions, AuthKeyMode madKeyMode, const std::uint8_t* madKey);
    /// More sectors for an application; without a directory for `sectorCount` sectors from number `appId` on.
    virtual int addAppSector(int readerId, TagAppType appType, short appId, const std::uint8_t* madKey,
                             const std::uint8_t* sectorKey, short spareShort, short sectorCount, const TagUID& tag,
                             const std::uint8_t* newKeyA, const std::uint8_t* newKeyB, DataAccControl access, int& done,
                             int& resultCount, OpResultCode*& results);

    /// Whether operations that wait for a tag put up the prompt (TagPrompt.h). On at the start.
    virtual void setTagPromptFlag(bool on);
    /// How long operations wait for a tag, in milliseconds; 0 restores the value of the settings.
    virtual void resetSuspendTime(std::uint32_t ms);
    /// Takes the reader settings of the configuration file; the adaptor does not do so by itself.
    virtual void loadReaderConfig() = 0;
    /// Sends every idle tag in the field to sleep, with `haltSelected` the selected one first. Always 3100.
    virtual int haltAllTag(bool haltSelected);
    /// The door for card sessions and raw commands: 40 send, 41 send raw, 42 wait for a card, 43 deselect, 44 nothing,
    /// 46 relay to the reader. Arguments are read from `in`, from where it stands; results go into a new collection,
    /// which the host releases. The host sets `out` to null before the call; it stays so after a failure, except of an
    /// unknown command and of a result that could not be delivered.
    /// @return 3100; 3101 for no such command; -21 for arguments that do not fit; -45 when sixteen cards are known;
    /// -50, -52, -53 of the exchange (QvlTcl.h); 3121, 3122 for no card; 3139 for a relay to another reader than TAMA;
    /// else the status of the driver.
    virtual int runCommand(int id, QVLParamCollection& in, QVLParamCollection*& out);
    /// Tells the adaptor that a USB device has come or gone (1, 2), or asks for a scan and a new start (0).
    virtual void scanUSBDevice(int event);

    /// Release what the adaptor handed out. Null is welcome. Always 3000.
    virtual int freeMemory(QVLParamCollection* collection);
    virtual int freeMemory(EventObject* event);
    virtual int freeMemory(std::uint8_t* bytes);
    virtual int freeMemory(short* ids);
    virtual int freeMemory(OpResultCode* results);
    virtual int freeMemory(TagUID* tags);

    /// Opens a session with the card of this UID, waiting for it, beside those that are open: neither they nor the
    /// field are touched. `cid` is its number, `ats` its ATS, which the host releases. The commands 40, 41 and 43 go on
    /// with it.
    /// @return 3100; -21 for a UID of no or more than 10 bytes; -45 when sixteen cards are known; 3121, 3122 for no
    /// such card; 3137 without a reader; 3139 for a second card on a
    /// PN531, which holds one at a time; else the status of the card layer.
    virtual int openCard(int readerId, const TagUID& tag, std::uint8_t& cid, std::uint8_t*& ats, int& atsLength);

    /// Does nothing; an adaptor ends through its virtual destructor. Always 3000.
    static int freeMemory(ReaderImpl* adaptor);

  private:
    char* mDeviceInstanceID;
};

/// The library's one entry: a new adaptor, or null without memory. It looks for a reader but opens nothing; a missing
/// reader is not an error. `service` is not null and outlives the adaptor. The host deletes the adaptor.
extern "C" QVL_API ReaderImpl* createAdaptorInstance(QVLReaderServiceIntf* service);

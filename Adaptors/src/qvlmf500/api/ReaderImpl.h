#pragma once

#include "EventObject.h"
#include "OpResultCode.h"
#include "QVLParamCollection.h"
#include "QVLReaderServiceIntf.h"
#include "QvlExport.h"
#include "ServiceStatus.h"
#include "TagUID.h"

#include <cstdint>

/// How an operation addresses the memory of a tag.
enum TagAppType : std::int32_t {
    TagAppNone = 0,  ///< Absolute blocks and sectors, no application directory.
    TagAppMad1 = 1,  ///< Blocks and sectors of an application in the tag's directory.
    TagAppMad2 = 2,  ///< The same; formatting writes a version 2 directory.
};

/// With which key of a sector to authenticate: the Mifare command byte itself.
enum AuthKeyMode : std::int32_t {
    AuthKeyA = 0x60,
    AuthKeyB = 0x61,
};

/// Operations on a value block.
enum ValueBlockOper : std::int32_t {
    ValueIncrement = 0,
    ValueDecrement = 1,
};

/// Access condition of a data block or a sector trailer, by its bits C1 C2 C3.
enum DataAccControl : std::int32_t {
    AccData010 = 0,
    AccData100 = 1,
    AccData011 = 2,
    AccData101 = 3,
    AccData111 = 4,
    AccData000 = 5,
    AccData110 = 6,  ///< Value block.
    AccData001 = 7,  ///< Value block that can only be decremented.
    AccTrailer000 = 8,
    AccTrailer010 = 9,
    AccTrailer100 = 10,
    AccTrailer110 = 11,
    AccTrailer001 = 12,
    AccTrailer011 = 13,
    AccTrailer101 = 14,
    AccTrailer111 = 15,
    AccInvalid = 16,
};

/// What a host sees of an adaptor: the operations, with the answer of an adaptor that does not provide one.
///
/// Results are ServiceStatus codes: 3100 is success of a tag or reader operation. `readerId` is a value of the host
/// that is carried along. Everything that an operation hands out (`TagUID*&`, `uchar*&`, ...) is new and the host's,
/// and goes back through freeMemory and nothing else. Any thread may call any operation; operations on tags queue for
/// the reader, those that wait for a tag included. Null outputs, and null data with a length, are refused with 3101.
///
/// Life of an adaptor: createAdaptorInstance, loadReaderConfig, initReader, any operations, stopReader, destruction
/// through the virtual destructor.
class QVL_API ReaderImpl {
  public:
    ReaderImpl();
    ReaderImpl(const ReaderImpl& other);
    ReaderImpl& operator=(const ReaderImpl& other);
    virtual ~ReaderImpl();

    /// Instance id of the reader's device, or null; the object keeps the text.
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
    /// reports once until it leaves the field. False: anything else, and `event` is not touched. Gives way to an
    /// operation that is running. `forced` finds tags that have reported already; `ignoreSuspend` polls in spite of
    /// suspendPoll. Opens the reader by itself when it is not ready.
    virtual bool pollTag(EventObject*& event, bool forced, bool ignoreSuspend) = 0;

    virtual int getTagId(int readerId, TagAppType appType, short appId, TagUID*& tag, AuthKeyMode keyMode,
                         const std::uint8_t* key, bool halt);
    virtual int getAllTagId(int readerId, TagAppType appType, short appId, AuthKeyMode keyMode, const std::uint8_t* key,
                            short& count, TagUID*& tags);
    /// Stops pollTag for all tags until resumePoll. 3106 when suspended already; resumePoll 3107 when not.
    virtual int suspendPoll(TagUID& tag);
    virtual int resumePoll(TagUID& tag);

    virtual int formatTag(int readerId, TagAppType appType, std::uint8_t* newKeyB, TagUID*& tag, std::uint8_t* key,
                          int& count, OpResultCode*& results);
    virtual int unformatTag(int readerId, TagAppType appType, std::uint8_t* key, TagUID*& tag, int* results);
    virtual int initApp(int readerId, TagAppType appType, short appId, const std::uint8_t* madKey,
                        const std::uint8_t* sectorKey, short sectorIndex, short sectorCount, const TagUID& tag,
                        const std::uint8_t* newKeyA, const std::uint8_t* newKeyB, DataAccControl access, int& first,
                        int& count, OpResultCode*& results);
    virtual int resetApp(int readerId, TagAppType appType, short appId, const std::uint8_t* madKey, short sectorIndex,
                         short sectorCount, const TagUID& tag, AuthKeyMode keyMode, const std::uint8_t* key,
                         const std::uint8_t* newKeyA, const std::uint8_t* newKeyB, int* results);
    virtual int removeAppSector(int readerId, TagAppType appType, short appId, const std::uint8_t* madKey,
                                short sectorIndex, short sectorCount, short startIndex, const TagUID& tag,
                                AuthKeyMode keyMode, const std::uint8_t* key, const std::uint8_t* newKeyA,
                                const std::uint8_t* newKeyB, int* results);
    virtual int setDataBlockType(int readerId, TagAppType appType, short appId, const TagUID& tag,
                                 const std::uint8_t* keyA, const std::uint8_t* keyB, short sector, short block,
                                 DataAccControl access, unsigned int value, AuthKeyMode madKeyMode,
                                 const std::uint8_t* madKey);
    virtual int setTrailerBlockType(int readerId, TagAppType appType, short appId, const TagUID& tag,
                                    AuthKeyMode keyMode, const std::uint8_t* keyA, const std::uint8_t* keyB,
                                    DataAccControl access, AuthKeyMode madKeyMode, const std::uint8_t* madKey,
                                    short sectorCount, int& count, OpResultCode*& results);
    virtual int setKey(int readerId, TagAppType appType, short appId, const TagUID& tag, AuthKeyMode keyMode,
                       const std::uint8_t* key, const std::uint8_t* newKeyA, const std::uint8_t* newKeyB,
                       short sectorCount, AuthKeyMode madKeyMode, const std::uint8_t* madKey, int& count,
                       OpResultCode*& results);
    virtual int getAllAppId(int readerId, TagAppType appType, const TagUID& tag, short& count, short*& appIds,
                            AuthKeyMode keyMode, const std::uint8_t* key);
    virtual int getAppIdDir(int readerId, TagAppType appType, const TagUID& tag, short* directory, AuthKeyMode keyMode,
                            const std::uint8_t* key);
    virtual int getAppData(int readerId, TagAppType appType, const TagUID& tag, short appId, AuthKeyMode keyMode,
                           const std::uint8_t* key, std::uint8_t*& data, int& dataLength, AuthKeyMode madKeyMode,
                           const std::uint8_t* madKey, int& count, OpResultCode*& results);
    virtual int setAppData(int readerId, TagAppType appType, const TagUID& tag, short appId, AuthKeyMode keyMode,
                           const std::uint8_t* key, std::uint8_t* data, int dataLength, AuthKeyMode madKeyMode,
                           const std::uint8_t* madKey, const std::uint8_t* fill, int& count, OpResultCode*& results);
    virtual int getBlockData(int readerId, TagAppType appType, const TagUID& tag, short appId, AuthKeyMode keyMode,
                             const std::uint8_t* key, short startIndex, short blockCount, std::uint8_t*& data,
                             int& dataLength, AuthKeyMode madKeyMode, const std::uint8_t* madKey, int& count,
                             OpResultCode*& results);
    virtual int getBlockData(int readerId, TagAppType appType, const TagUID& tag, short appId, AuthKeyMode keyMode,
                             const std::uint8_t* key, short startIndex, short blockCount, std::uint8_t*& data,
                             int& dataLength, AuthKeyMode madKeyMode, const std::uint8_t* madKey, int* results);
    virtual int setBlockData(int readerId, TagAppType appType, const TagUID& tag, short appId, AuthKeyMode keyMode,
                             const std::uint8_t* key, short startIndex, short blockCount, std::uint8_t* data,
                             int dataLength, AuthKeyMode madKeyMode, const std::uint8_t* madKey,
                             const std::uint8_t* fill, int& count, OpResultCode*& results);
    virtual int setBlockData(int readerId, TagAppType appType, const TagUID& tag, short appId, AuthKeyMode keyMode,
                             const std::uint8_t* key, short startIndex, short blockCount, std::uint8_t* data,
                             int dataLength, AuthKeyMode madKeyMode, const std::uint8_t* madKey, int* results);
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
                                       const std::uint8_t* keyA, const std::uint8_t* keyB, int block, int value,
                                       AuthKeyMode madKeyMode, const std::uint8_t* madKey);
    virtual int getBlockAccessMode(int readerId, TagAppType appType, const TagUID& tag, short appId,
                                   AuthKeyMode keyMode, const std::uint8_t* key, int block, DataAccControl& access,
                                   AuthKeyMode madKeyMode, const std::uint8_t* madKey);
    virtual int getSectorAccessMode(int readerId, TagAppType appType, const TagUID& tag, short appId,
                                    AuthKeyMode keyMode, const std::uint8_t* key, short sector, DataAccControl* access,
                                    AuthKeyMode madKeyMode, const std::uint8_t* madKey);
    virtual int addAppSector(int readerId, TagAppType appType, short appId, const std::uint8_t* madKey,
                             const std::uint8_t* sectorKey, short sectorIndex, short sectorCount, const TagUID& tag,
                             const std::uint8_t* newKeyA, const std::uint8_t* newKeyB, DataAccControl access,
                             int& first, int& count, OpResultCode*& results);

    /// Whether operations that wait for a tag put up the prompt (TagPrompt.h). On at the start.
    virtual void setTagPromptFlag(bool on);
    /// How long operations wait for a tag, in milliseconds; 0 restores the value of the settings.
    virtual void resetSuspendTime(std::uint32_t ms);
    /// Takes the reader settings of the configuration file; the adaptor does not do so by itself.
    virtual void loadReaderConfig() = 0;
    /// Sends every idle tag in the field to sleep, with `haltSelected` the selected one first. Always 3100.
    virtual int haltAllTag(bool haltSelected);
    /// The door for card sessions and raw commands: arguments and results are typed streams. The host sets `out` to
    /// null before the call.
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

    /// Does nothing; an adaptor ends through its virtual destructor. Always 3000.
    static int freeMemory(ReaderImpl* adaptor);

  private:
    char* mDeviceInstanceID;
};

/// The library's one entry: a new adaptor, or null without memory. It looks for a reader but opens nothing, and no
/// reader in reach is no failure. `service` is not null and outlives the adaptor. The host deletes the adaptor.
extern "C" QVL_API ReaderImpl* createAdaptorInstance(QVLReaderServiceIntf* service);

#pragma once

/// Result codes of the service, the level that a host sees. kOk is success of a tag or reader operation,
/// kMemoryOk success of a memory or stream operation.
enum ServiceStatus : int {
    kMemoryOk = 3000,             ///< Success of freeMemory, of streams, and of the check of a user block.
    kNoApplicationId = 3021,      ///< An application id below 6 was given.
    kStreamEnd = 3037,            ///< A read would pass the end of a stream.
    kStreamFull = 3038,           ///< A stream cannot grow.
    kWrongValueType = 3041,       ///< The value in the stream has another type.
    kOk = 3100,                   ///< Success.
    kReaderFailed = 3101,         ///< A reader operation failed, an output is missing, or a command is unknown.
    kKeyRefused = 3102,           ///< Key coding or authentication failed.
    kNoTag = 3104,                ///< No tag answered, or the tag could not be selected.
    kBlockNotRead = 3105,         ///< A block could not be read.
    kAlreadySuspended = 3106,     ///< Polling is suspended already.
    kNotSuspended = 3107,         ///< Polling is not suspended.
    kTagWithoutUid = 3108,        ///< The given TagUID holds no UID.
    kDirectoryNotRead = 3109,     ///< Directory or trailer of sector 0 could not be read.
    kTooFew = 3110,               ///< Too few sectors or blocks.
    kDirectoryNotWritten = 3111,  ///< The directory could not be written.
    kApplicationMissing = 3112,   ///< The application is not on the tag.
    kOutOfRange = 3113,           ///< Block, sector or index outside the tag or application.
    kBlockKindRefused = 3114,     ///< setDataBlockType: this kind of block is refused.
    kZeroValue = 3115,            ///< setDataBlockType: a value block that only goes down must not start at 0.
    kNoValueBlock = 3116,         ///< The block is no value block, or the condition none of a value block.
    kNoDataCondition = 3117,      ///< setDataBlockType: the condition is none of a data block.
    kBlockNotOpened = 3118,       ///< setDataBlockType: the trailer could not be written before the data.
    kNotAllowedHere = 3119,       ///< Not allowed for this tag type or addressing.
    kValueFailed = 3120,          ///< A value operation failed; whether it took place is unknown.
    kCancelled = 3121,            ///< The wait was cancelled, or nobody can wait: no prompt stands.
    kWaitOver = 3122,             ///< The wait time ran out.
    kTypeNotWritten = 3123,       ///< The new block type could not be written.
    kTrailerNotRead = 3124,       ///< A sector trailer could not be read.
    kDataTooLong = 3125,          ///< More data than the blocks hold.
    kValueNotRead = 3126,         ///< A value block could not be read.
    kAccessRefused = 3127,        ///< Access bits invalid or refused.
    kApplicationExists = 3128,    ///< The application exists already.
    kValueInconsistent = 3129,    ///< The block is no sound value block.
    kNoDirectory = 3130,          ///< No directory, or no tag with the application.
    kReservedBlock = 3131,        ///< The block is reserved.
    kPartial = 3132,              ///< Partial success; the records tell which.
    kBlockNotWritten = 3133,      ///< A block could not be written.
    kRepairFailed = 3134,         ///< The final repair of the directory failed.
    kNewKeyMissing = 3136,        ///< The new key B is missing.
    kReaderNotReady = 3137,       ///< The reader is not initialised.
    kNotImplemented = 3139,       ///< Not implemented by this adaptor or this reader.
    kNoSuchSector = 3204,         ///< No trailer: sector outside the tag.
    kNoTrailers = 3205,           ///< No trailer: tag type without trailers.
};

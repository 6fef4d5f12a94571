#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

/// The settings file "QVLReader.ini" as a tree of sections.
///
/// A section opens with a line [NAME] and closes with [/NAME]; sections nest to any depth. Inside a section a line with
/// '=' is a key. Lines whose first characters after blanks are // are comments. At the top level only lines that
/// begin with '[' mean anything. Only the character 0x20 is a blank. Names are case-sensitive; of two entries of one
/// name the first wins. Lines are taken in pieces of at most 255 characters, and each piece counts as a line.

enum IniType : std::uint32_t {
    INI_NOT_FOUND = 100,  ///< Only ever the answer of a lookup.
    INI_VALUE = 101,      ///< The entry is a text.
    INI_TABLE = 102,      ///< The entry is a section.
};

class IniTable;

/// One entry: a key with its text, or a section with its table.
struct IniNode {
    std::string name;
    IniType type = INI_VALUE;
    std::string text;                 ///< Of an INI_VALUE.
    std::unique_ptr<IniTable> table;  ///< Of an INI_TABLE.
    std::unique_ptr<IniNode> next;    ///< Next node in the bucket's chain.
};

/// A chained hash table of entries. The bucket of a name is the sum of its first 32 bytes as little-endian 32-bit
/// words, zero-padded, modulo the bucket count.
class IniTable {
  public:
    explicit IniTable(std::size_t bucketCount) : mBuckets(bucketCount) {}
    /// Releases nested tables without recursion, whatever their depth.
    ~IniTable();
    IniTable(const IniTable&) = delete;
    IniTable& operator=(const IniTable&) = delete;

    /// Appends after the entries of the same bucket.
    IniNode& insert(std::string name, IniType type);
    /// The first entry of this name, or null. The table keeps it.
    const IniNode* find(const char* name) const;

    static std::uint32_t hash(const char* name);

  private:
    struct Bucket {
        std::unique_ptr<IniNode> first;
        IniNode* last = nullptr;
    };
    std::vector<Bucket> mBuckets;
};

/// What a lookup found: `text` for an INI_VALUE, `node` for an INI_TABLE, neither for INI_NOT_FOUND. Both belong to the
/// tree and stay good until it is reloaded.
struct IniEntry {
    IniType type = INI_NOT_FOUND;
    const char* text = nullptr;
    const IniNode* node = nullptr;
};

/// Reads and keeps the settings. The file is loaded once, by the first lookup, however many threads ask at once; a file
/// that cannot be read leaves an empty tree and is not tried again. So does one above 4 MiB or with more than 8192
/// lines that open or close sections. That, and a closing line of the wrong name, is reported on the standard output.
/// Nothing fails: a missing entry is a null answer, and every reader of a setting has its default. Does not log, since
/// the log reads its settings here.
class IniManager {
  public:
    IniManager();
    static IniManager& instance();

    /// Text of `key` in the first-level section `section`, or null.
    const char* value(const char* section, const char* key);
    /// Looks `name` up in `node`; a null node, or one that is no section, holds nothing.
    IniEntry lookup(const IniNode* node, const char* name);
    /// The root, named "QuorvelINI". Does not load.
    const IniNode* root() const { return mRoot.get(); }

    /// The reload operations. Null does nothing. Not while another thread looks something up.
    void loadAndReplace(const char* fileName);
    void loadAndMerge(const char* fileName);
    void setDirectoryAndReload(const char* directory);

  private:
    void loadOnce();
    template <typename Prepare>
    void reload(Prepare prepare);
    void emptyTree();
    void loadIniFile();

    std::mutex mLoadMutex;
    std::atomic<bool> mLoaded{false};
    bool mDirectoryKnown = false;
    std::optional<std::string> mDirectory;  // found out at first use; absent if there is nowhere to look
    std::string mFileName;                  // empty until the first load
    std::unique_ptr<IniNode> mRoot;
};

/// The installation directory (see platform::installationPath), asked for once; null when there is none.
const char* getInstallPath();

/// Shorthands on the one instance.
const char* iniGetValue(const char* section, const char* key);
const IniNode* getIniRoot();
IniEntry iniLookup(const IniNode* node, const char* name);

/// Numbers in settings: leading digits count, anything else gives 0. A sign is no digit. Saturates at the end of the
/// type.
std::uint32_t iniNumber(const char* text);

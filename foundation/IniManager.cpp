#include "IniManager.h"

#include "Files.h"
#include "IniParser.h"
#include "Installation.h"

#include <algorithm>
#include <cstdio>
#include <limits>
#include <utility>

namespace {

constexpr char kRootName[] = "QuorvelINI";
constexpr char kDefaultFileName[] = "QVLReader.ini";
constexpr char kSettingsFolder[] = "/data/conf";
constexpr std::size_t kLongestInstallPath = 259;
constexpr std::size_t kLongestFilePath = 255;
constexpr std::size_t kLargestFile = std::size_t{4} << 20;
constexpr std::size_t kHashedBytes = 32;

/// An absent value: with raised rights and without an installation nobody says where the settings are.
std::optional<std::string> settingsDirectory() {
    if (const char* path = getInstallPath()) return std::string(path) + kSettingsFolder;
    if (platform::hasRaisedRights()) return std::nullopt;
    return ".";
}

/// Runs what builds or reads the tree. Without memory the rest of the tree is missing.
template <typename Action>
void sheltered(Action action) {
    try {
        action();
    } catch (...) {
    }
}

}  // namespace

IniTable::~IniTable() {
    std::unique_ptr<IniNode> pending;  // everything below this table, as one chain
    const auto take = [&pending](IniTable& table) {
        for (Bucket& bucket : table.mBuckets) {
            if (!bucket.first) continue;
            bucket.last->next = std::move(pending);
            pending = std::move(bucket.first);
        }
    };
    take(*this);
    while (pending) {
        const std::unique_ptr<IniNode> node = std::move(pending);
        pending = std::move(node->next);
        if (node->table) take(*node->table);
    }
}

IniNode& IniTable::insert(std::string name, IniType type) {
    Bucket& bucket = mBuckets[hash(name.c_str()) % mBuckets.size()];
    auto node = std::make_unique<IniNode>();
    node->name = std::move(name);
    node->type = type;
    std::unique_ptr<IniNode>& place = bucket.first ? bucket.last->next : bucket.first;
    place = std::move(node);
    bucket.last = place.get();
    return *bucket.last;
}

const IniNode* IniTable::find(const char* name) const {
    const IniNode* node = mBuckets[hash(name) % mBuckets.size()].first.get();
    while (node && node->name != name)
        node = node->next.get();
    return node;
}

std::uint32_t IniTable::hash(const char* name) {
    std::uint32_t sum = 0;
    for (std::size_t i = 0; i < kHashedBytes && name[i]; ++i)
        sum += static_cast<std::uint32_t>(static_cast<unsigned char>(name[i])) << 8 * (i % 4);
    return sum;
}

IniManager::IniManager() : mRoot(std::make_unique<IniNode>()) {
    mRoot->name = kRootName;
    mRoot->type = INI_TABLE;
    emptyTree();
}

IniManager& IniManager::instance() {
    static IniManager* const manager = new IniManager;  // never destroyed: destructors of other statics may still ask
    return *manager;
}

const char* IniManager::value(const char* section, const char* key) {
    return lookup(lookup(mRoot.get(), section).node, key).text;
}

IniEntry IniManager::lookup(const IniNode* node, const char* name) {
    if (!mLoaded.load(std::memory_order_acquire)) loadOnce();
    if (!node || node->type != INI_TABLE || !name) return {};
    const IniNode* entry = node->table->find(name);
    if (!entry) return {};
    if (entry->type == INI_TABLE) return {INI_TABLE, nullptr, entry};
    return {INI_VALUE, entry->text.c_str(), nullptr};
}

void IniManager::loadAndReplace(const char* fileName) {
    if (!fileName) return;
    reload([&] {
        mFileName = fileName;
        emptyTree();
    });
}

void IniManager::loadAndMerge(const char* fileName) {
    if (!fileName) return;
    reload([&] { mFileName = fileName; });
}

void IniManager::setDirectoryAndReload(const char* directory) {
    if (!directory) return;
    reload([&] {
        mDirectory = directory;
        mDirectoryKnown = true;
        emptyTree();
    });
}

void IniManager::loadOnce() {
    const std::lock_guard lock(mLoadMutex);
    if (mLoaded.load(std::memory_order_relaxed)) return;
    sheltered([this] {
        mFileName = kDefaultFileName;
        loadIniFile();
    });
    mLoaded.store(true, std::memory_order_release);
}

template <typename Prepare>
void IniManager::reload(Prepare prepare) {
    const std::lock_guard lock(mLoadMutex);
    sheltered([&] {
        prepare();
        loadIniFile();
    });
    mLoaded.store(!mFileName.empty(), std::memory_order_release);
}

void IniManager::emptyTree() { mRoot->table = std::make_unique<IniTable>(kIniRootBuckets); }

void IniManager::loadIniFile() {
    if (!mDirectoryKnown) {
        mDirectory = settingsDirectory();
        mDirectoryKnown = true;
    }
    if (!mDirectory) return;
    const std::string path = *mDirectory + '/' + mFileName;
    std::string text;
    if (path.size() > kLongestFilePath || !platform::readTextFile(path.c_str(), text, kLargestFile, true)) return;
    if (!hasBearableSections(text)) {
        std::printf("too many sections in file %s/%s, which is not used\n", mDirectory->c_str(), mFileName.c_str());
        return;
    }
    for (int line : parseIni(text, *mRoot->table))
        std::printf("parsing error at line # %d in file %s/%s\n", line, mDirectory->c_str(), mFileName.c_str());
}

const char* getInstallPath() {
    const char* path = nullptr;
    sheltered([&] {
        static const std::string* const found =
            new std::string(platform::installationPath().substr(0, kLongestInstallPath));
        if (!found->empty()) path = found->c_str();
    });
    return path;
}

const char* iniGetValue(const char* section, const char* key) {
    const char* text = nullptr;
    sheltered([&] { text = IniManager::instance().value(section, key); });
    return text;
}

const IniNode* getIniRoot() {
    const IniNode* root = nullptr;
    sheltered([&] { root = IniManager::instance().root(); });
    return root;
}

IniEntry iniLookup(const IniNode* node, const char* name) {
    IniEntry entry;
    sheltered([&] { entry = IniManager::instance().lookup(node, name); });
    return entry;
}

std::uint32_t iniNumber(const char* text) {
    constexpr std::uint64_t kLargest = std::numeric_limits<std::uint32_t>::max();
    std::uint64_t number = 0;
    for (; text && *text >= '0' && *text <= '9'; ++text)
        number = std::min<std::uint64_t>(number * 10 + static_cast<std::uint64_t>(*text - '0'), kLargest);
    return static_cast<std::uint32_t>(number);
}

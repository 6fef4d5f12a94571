#pragma once

#include "VirtualTamaReader.h"

#include <functional>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <utility>

/// The line commands that steer a virtual reader while it runs. Pure: whoever reads the lines hands them in here.
class LineCommands {
  public:
    /// `quirks` hold for every tag that is placed. With `saveTags` the image of a tag is written back to its file when
    /// the tag leaves for good.
    LineCommands(std::shared_ptr<VirtualReader> reader, TagQuirks quirks, bool saveTags);

    /// `settle` is called after the reader has gone or come back: it waits until hosts see that, and says what went
    /// wrong, if anything. Without one, nobody has to see it.
    void onReaderMoved(std::function<std::string()> settle) { mSettle = std::move(settle); }

    /// Runs one command. @return its answer: lines that each end with a newline, the last of which begins with "ok" or
    /// "error: "; empty for an empty line.
    std::string run(std::string_view line);
    /// True once "quit" was said.
    bool hasQuit() const { return mQuit; }

    /// Places a tag; what `run` does for "place". @return the answer.
    std::string place(const std::string& pathOrSpec, const std::string& name = {});
    /// Saves all images that changed, if tags are to be saved. @return the failures, a line each.
    std::string saveAll();

  private:
    struct Command;
    static const Command kCommands[];

    std::string onPlace(const std::string& rest);
    std::string onRemove(const std::string& rest);
    std::string onAway(const std::string& rest);
    std::string onBack(const std::string& rest);
    std::string onList(const std::string& rest);
    std::string onSave(const std::string& rest);
    std::string onReader(const std::string& rest);
    std::string onFault(const std::string& rest);
    std::string onFaults(const std::string& rest);
    std::string onLed(const std::string& rest);
    std::string onField(const std::string& rest);
    std::string onHelp(const std::string& rest);
    std::string onQuit(const std::string& rest);

    std::string setPresent(const std::string& name, bool present);
    std::string saveChanged(const std::string& name, VirtualTag& tag);

    std::shared_ptr<VirtualReader> mReader;
    const TagQuirks mQuirks;
    const bool mSaveTags;
    std::map<std::string, std::string> mSources;  ///< What each tag was made from, by its name.
    std::function<std::string()> mSettle;
    bool mQuit = false;
};

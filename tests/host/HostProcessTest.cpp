// A host as a process of its own: how it may end, and what raised rights take from its environment.

#include "ForkedChild.h"
#include "ReaderImpl.h"
#include "ScopedEnvironment.h"
#include "TempDirectory.h"

#include <gtest/gtest.h>

#include <dlfcn.h>
#include <filesystem>
#include <string>

namespace {

class Service : public QVLReaderServiceIntf {
  public:
    void readerStateChanged(bool) override {}
    void readerMessage(int, const char*) override {}
};

/// How a process ends that does `work` and then, unless that ended it, what an ordinary end does.
int statusOf(const std::function<void()>& work) {
    ForkedChild child([&]() -> int {
        work();
        std::exit(0);
    });
    return child.wait();
}

class AHost : public ::testing::Test {
  protected:
    AHost() : path("QVL_PATH", directory.path().c_str()), root("QVL_DEVICE_ROOT", directory.path().c_str()) {
        directory.write("data/conf/QVLReader.ini",
                        "[LOGSERVICE]\nLOGENABLE=1\nLOGLEVEL=5\nLOGPATH=" + directory.path() +
                            "/log\n[/LOGSERVICE]\n[READER]\nSERIAL_PORT=77\nWAITTIME=4711\n[/READER]\n");
    }
    TempDirectory directory;
    ScopedEnvironment path, root;
};

TEST_F(AHost, MayEndInAnyState) {
    static Service service;
    static ReaderImpl* neverDeleted;
    const std::function<void()> ends[] = {
        [] { neverDeleted = createAdaptorInstance(&service); },
        [] { (neverDeleted = createAdaptorInstance(&service))->initReader(); },
        [] { delete createAdaptorInstance(&service); },
        [] {
            static const std::unique_ptr<ReaderImpl> late(createAdaptorInstance(&service));  // ends among the statics
            EventObject* event = nullptr;
            late->pollTag(event, false, false);
        },
        [] { ::_exit((createAdaptorInstance(&service)->stopReader()) ? 0 : 1); },
    };
    for (const auto& end : ends)
        EXPECT_EQ(statusOf(end), 0);
    EXPECT_NE(directory.read("log/rdrlog0000.txt").find("successfully create an adaptor"), std::string::npos);
}

TEST_F(AHost, MayLoadAndUnloadTheLibrary) {
    EXPECT_EQ(statusOf([] {
                  static Service service;
                  for (int i = 0; i < 20; ++i) {
                      void* library = ::dlopen(QVL_LIBRARY, RTLD_NOW | RTLD_LOCAL);
                      if (library == nullptr) ::_exit(2);
                      const auto create = reinterpret_cast<ReaderImpl* (*)(QVLReaderServiceIntf*)>(
                          ::dlsym(library, "createAdaptorInstance"));
                      ReaderImpl* adaptor = create != nullptr ? create(&service) : nullptr;
                      if (adaptor == nullptr || adaptor->initReader()) ::_exit(3);
                      delete adaptor;
                      ::dlclose(library);
                  }
              }),
              0);
}

std::string outputOf(const std::string& program, uid_t user, const TempDirectory& directory) {
    const std::string file = directory / "output";
    std::filesystem::remove(file);
    const int status = statusOf([&] {
        if (std::freopen(file.c_str(), "w", stdout) == nullptr || ::chdir(directory.path().c_str()) != 0) ::_exit(4);
        if (user != 0 && ::setresuid(user, user, user) != 0) ::_exit(5);
        ::execl(program.c_str(), program.c_str(), nullptr);
        ::_exit(6);
    });
    EXPECT_EQ(status, 0);
    return directory.read("output");
}

TEST_F(AHost, WithRaisedRightsDoesNotTrustItsEnvironment) {
    if (::geteuid() != 0) GTEST_SKIP() << "only the superuser can make a set-user-id program";
    namespace fs = std::filesystem;
    directory.write("QVLReader.ini", "[READER]\nWAITTIME=1\n[/READER]\n");
    const std::string probe = directory / "probe";
    fs::copy_file(RAISED_RIGHTS_PROBE, probe);
    fs::permissions(directory.path(), fs::perms::all);
    const std::string trusted = "0 " + directory.path() + " " + directory.path() + " 4711\n";
    EXPECT_EQ(outputOf(probe, 0, directory), trusted);
    fs::permissions(probe, fs::perms::set_uid | fs::perms::owner_all | fs::perms::others_read | fs::perms::others_exec |
                               fs::perms::group_read | fs::perms::group_exec);
    const std::string raised = outputOf(probe, 65534, directory);
    if (raised.starts_with("0")) GTEST_SKIP() << "set-user-id has no effect in this directory";
    EXPECT_EQ(raised, "1 /dev/qvlreader  none\n") << "neither variables nor the working directory";
}

}  // namespace

#include <cstring>
#include <malloc.h>
#include <sys/resource.h>

#include "limits/Limits.h"
#include "platform/LargeHeap.h"
#include "platform/MainLoop.h"
#include "platform/TextMemory.h"
#include "tests/platform/PortFixture.h"

namespace {

// What each service promises, kept by the real one and by the fake that tests use in its place.

TEST(Locale, readsLanguageAndRegionFromTheFirstVariableThatIsSet) {
    // By the value of LC_ALL, of LC_MESSAGES and of LANG; empty: none.
    const std::tuple<const char*, const char*, const char*, const char*> cases[] = {
        {"de_DE.UTF-8", "fr_FR", "en_GB", "de_DE"},
        {"", "fr_FR@euro", "en_GB", "fr_FR"},
        {nullptr, nullptr, "pt_BR.UTF-8@x", "pt_BR"},
        {"C", nullptr, "de_DE", ""},
        {"C.UTF-8", nullptr, nullptr, ""},
        {"POSIX", nullptr, nullptr, ""},
        {nullptr, nullptr, nullptr, ""},
        {"de", nullptr, nullptr, ""},
        {"es_419", nullptr, nullptr, "es_419"},
        {"DE_de", nullptr, nullptr, "de_DE"},
        {nullptr, "en_us.utf8", nullptr, "en_US"},
        {"x'/>_US", nullptr, nullptr, ""},
        {"de_", nullptr, nullptr, ""},
        {"_DE", nullptr, nullptr, ""},
    };
    const auto set = [](const char* name, const char* value) {
        if (value != nullptr) {
            setenv(name, value, 1);
        } else {
            unsetenv(name);
        }
    };
    for (const auto& [all, messages, lang, expected] : cases) {
        set("LC_ALL", all);
        set("LC_MESSAGES", messages);
        set("LANG", lang);
        SCOPED_TRACE(testing::Message() << (all != nullptr ? all : "-") << " expects " << expected);
        std::string identifier = "untouched";
        const bool found = platform::Locale::own().identifier(identifier);
        EXPECT_EQ(found, *expected != '\0');
        EXPECT_EQ(identifier, found ? expected : "untouched");
    }
}

// The first of its kind: later there may be no line left that is written.
TEST(Log, endsNoProcessWhoseErrorOutputNobodyReads) {
    const auto body = [] {
        (void)std::signal(SIGPIPE, SIG_DFL);
        sigset_t pipeSignal;
        sigemptyset(&pipeSignal);
        sigaddset(&pipeSignal, SIGPIPE);
        int ends[2];
        if (pthread_sigmask(SIG_UNBLOCK, &pipeSignal, nullptr) != 0 || pipe(ends) != 0 ||
            dup2(ends[1], STDERR_FILENO) < 0) {
            return 1;
        }
        close(ends[0]);
        platform::Log::own().problem("to nobody");
        return 0;
    };
    EXPECT_EQ(inChild(body), 0);
}

TEST(Log, escapesWhatSteersATerminalAndWritesNoFasterThanAPersonReads) {
    platform::Log& log = platform::Log::own();
    const auto said = [&log](const std::string& line) {
        testing::internal::CaptureStderr();
        log.problem(line);
        return testing::internal::GetCapturedStderr();
    };
    EXPECT_EQ(said("a\x1b[2Jb\n\x7f \xc2\x9b \xff \xc3\xa4 \xe2\x82\xac"),
              "convey: a\\x1b[2Jb\\x0a\\x7f \\xc2\\x9b \\xff \xc3\xa4 \xe2\x82\xac\n");
    EXPECT_EQ(said("once"), "convey: once\n");
    EXPECT_EQ(said("once"), "") << "until it has been forgotten";
    const auto longest = static_cast<size_t>(limits::of("log.length"));
    EXPECT_LE(said(std::string(100'000, 'x')).size(), longest + 20);
    // By rate, and not by a count for life: what was left out is counted, and later lines are said.
    testing::internal::CaptureStderr();
    for (int i = 0; i < 1000; ++i) {
        log.problem("line " + std::to_string(i));
    }
    const std::string flood = testing::internal::GetCapturedStderr();
    const auto lines = std::count(flood.begin(), flood.end(), '\n');
    EXPECT_GT(lines, 0);
    EXPECT_LE(lines, limits::of("log.lines"));
    std::string later;
    for (int i = 0; later.empty() && i < 300; ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(limits::of("log.pause") / 10));
        later = said("later " + std::to_string(i));
    }
    EXPECT_NE(later.find(" lines before this were left out)\n"), std::string::npos) << later;
}

void keepsTheContractOfFrameworks(platform::Frameworks& frameworks, const std::string& bundle,
                                  const char* function) {
    EXPECT_EQ(frameworks.mainBundleFolder().front(), '/');
    EXPECT_EQ(frameworks.load("relative.framework"), nullptr);
    EXPECT_EQ(frameworks.load("/nonexistent/x.framework"), nullptr);
    EXPECT_EQ(frameworks.load(""), nullptr);
    EXPECT_EQ(frameworks.function(nullptr, function), nullptr);
    frameworks.unload(nullptr);
    void* handle = frameworks.load(bundle);
    ASSERT_NE(handle, nullptr);
    EXPECT_NE(frameworks.function(handle, function), nullptr);
    EXPECT_EQ(frameworks.function(handle, "noSuchFunction"), nullptr);
    frameworks.unload(handle);
}

TEST(Frameworks, realAndFakeKeepTheContract) {
    keepsTheContractOfFrameworks(platform::Frameworks::own(), OVREL_CAPS_FRAMEWORK,
                                 "mdbGetProduct");
    EXPECT_EQ(platform::Frameworks::own().load("/usr"), nullptr) << "no framework folder";
    platform::FakeFrameworks fake;
    int function = 0;
    fake.bundles["/x/y.framework"] = {{"f", &function}};
    keepsTheContractOfFrameworks(fake, "/x/y.framework", "f");
    EXPECT_EQ(fake.loaded, 0);
}

TEST(Frameworks, areLookedForInTheBundleThenWhereTheLayerIsInstalled) {
    using Paths = std::vector<std::string>;
    const std::tuple<const char*, Paths, const char*, Paths> cases[] = {
        {"/opt/bin",
         {"/usr/lib", "/opt/bin", "/usr/lib/convey"},
         "",
         {"/opt/bin/Contents/Frameworks/f", "/opt/bin/Frameworks/f", "/opt/bin/f", "/usr/lib/f",
          "/usr/lib/convey/f"}},
        {"/opt/X.app",
         {},
         nullptr,
         {"/opt/X.app/Contents/Frameworks/f", "/opt/X.app/Frameworks/f", "/opt/f"}},
        {"", {"/usr/lib"}, nullptr, {"/usr/lib/f"}},
        {"/opt/bin", {"/usr/lib"}, "/mine", {"/mine/f"}},
    };
    for (const auto& [bundle, installed, environment, expected] : cases) {
        SCOPED_TRACE(bundle);
        platform::FakeFrameworks fake;
        fake.folder = bundle;
        fake.installed = installed;
        if (environment != nullptr) {
            setenv("CONVEY_CAPS_FOLDER", environment, 1);
        }
        EXPECT_EQ(platform::frameworkCandidates(fake, "f"), expected);
        unsetenv("CONVEY_CAPS_FOLDER");
    }
}

// As when memory is short: no reason to end, and a request to end is heard all the same.
TEST(MainLoops, goOnWhenWaitingFails) {
    EXPECT_EQ(inChild([] {
                  platform::MainLoops& loops = platform::MainLoops::own();
                  const auto signal = loops.newSignal();
                  const auto requests = loops.takeEndRequests();
                  const rlimit none = {1, 1}; // the system polls no more descriptors than that
                  if (requests == nullptr || setrlimit(RLIMIT_NOFILE, &none) != 0) {
                      return 10;
                  }
                  if (requests->wait(*signal) != 0) {
                      return 20;
                  }
                  (void)raise(SIGTERM);
                  return requests->wait(*signal) == SIGTERM ? 0 : 30;
              }),
              0);
}

TEST(TextMemory, keepsLargeBlocksWithinBoundsUntilNobodyUsesThem) {
    using platform::TextMemory;
    constexpr size_t kLarge = size_t{1} << 20;
    const auto bound = static_cast<size_t>(limits::of("memory.kept.bytes"));
    TextMemory::giveBack(); // what others have left
    TextMemory::free(nullptr);
    void* const small = TextMemory::allocate(1000);
    TextMemory::free(small);
    EXPECT_EQ(TextMemory::keptBytes(), 0U);
    std::vector<void*> blocks;
    for (int i = 0; i < 100; ++i) {
        blocks.push_back(TextMemory::allocate(kLarge + static_cast<size_t>(i) * 1000));
        ASSERT_NE(blocks.back(), nullptr);
        std::memset(blocks.back(), i, kLarge);
    }
    for (void* const block : blocks) {
        TextMemory::free(block);
        EXPECT_LE(TextMemory::keptBytes(), bound);
    }
    EXPECT_GE(TextMemory::keptBytes(), kLarge);
    const size_t kept = TextMemory::keptBytes();
    void* const again = TextMemory::allocate(kLarge);
    EXPECT_LT(TextMemory::keptBytes(), kept) << "one of those that are kept";
    void* const tooSmall = TextMemory::allocate(kLarge / 8);
    EXPECT_GE(TextMemory::keptBytes(), kept - 2 * kLarge) << "a small text takes no large block";
    void* const grown = TextMemory::reallocate(again, 4 * kLarge);
    ASSERT_NE(grown, nullptr);
    TextMemory::free(grown);
    TextMemory::free(tooSmall);
    TextMemory::free(TextMemory::allocate(2 * bound));
    EXPECT_LE(TextMemory::keptBytes(), bound);
    TextMemory::giveBackWhenIdle(); // used since the last call, which there was not
    EXPECT_GT(TextMemory::keptBytes(), 0U);
    TextMemory::giveBackWhenIdle();
    EXPECT_EQ(TextMemory::keptBytes(), 0U);
    TextMemory::free(TextMemory::allocate(kLarge));
    EXPECT_GT(TextMemory::keptBytes(), 0U);
    TextMemory::giveBack();
    EXPECT_EQ(TextMemory::keptBytes(), 0U) << "at once";
}

// Whether the heap, where it is the system's and holds `block`, is one to be had in large pages.
bool isInSmallPages(const void* block) {
    std::ifstream maps("/proc/self/smaps");
    const auto address = reinterpret_cast<uintptr_t>(block);
    bool isAround = false;
    for (std::string line; std::getline(maps, line);) {
        unsigned long begin = 0;
        unsigned long end = 0;
        if (std::sscanf(line.c_str(), "%lx-%lx", &begin, &end) == 2) {
            isAround = begin <= address && address < end && line.ends_with("[heap]");
        } else if (isAround && line.starts_with("VmFlags:")) {
            return line.find(" hg") == std::string::npos;
        }
    }
    return false;
}

TEST(LargeHeap, comesInLargePagesAndLeavesWhoHasFewAddressesTheirs) {
    constexpr size_t kMegabyte = size_t{1} << 20;
    for (const size_t spareMegabytes : {size_t{0}, size_t{24}, size_t{100}}) { // 0: no limit
        SCOPED_TRACE(spareMegabytes);
        EXPECT_EQ(inChild([spareMegabytes] {
                      size_t pages = 0;
                      std::ifstream("/proc/self/statm") >> pages;
                      const size_t bytes = pages * 4096 + spareMegabytes * kMegabyte;
                      const rlimit few = {bytes, bytes};
                      if (spareMegabytes != 0 && setrlimit(RLIMIT_AS, &few) != 0) {
                          return 10;
                      }
                      (void)malloc_trim(0); // as at the start: other tests have left room
                      platform::expectLargeHeap();
                      // More than 32 MiB where the process has addresses for that.
                      const size_t count = spareMegabytes == 0 && sizeof(void*) > 4 ? 60 : 16;
                      for (size_t i = 0; i < count; ++i) {
                          auto* const block = static_cast<char*>(std::malloc(kMegabyte));
                          if (block == nullptr) {
                              return 20;
                          }
                          std::memset(block, 1, kMegabyte);
                          const bool isLast = i == count - 1; // others may fill what was there
                          const bool haveLargePages =
                              access("/sys/kernel/mm/transparent_hugepage", F_OK) == 0;
                          if (spareMegabytes == 0 && isLast && haveLargePages &&
                              isInSmallPages(block)) {
                              return 30;
                          }
                      }
                      return 0;
                  }),
                  0);
    }
}

TEST(LargeHeap, keepsWhatIsFreedForTheNextTextUntilItIsGivenBack) {
    if (sizeof(void*) == 4 || std::getenv("CONVEY_TEST_DIVISOR") != nullptr) {
        return; // large blocks beside the heap; a sanitizer's
    }
    constexpr size_t kText = size_t{16} << 20;
    constexpr long kPages = 4 * (kText >> 12);
    EXPECT_EQ(inChild([] {
                  platform::keepFreedHeap();
                  const auto faultsOfText = [] { // and of three copies
                      rusage before{};
                      (void)getrusage(RUSAGE_SELF, &before);
                      {
                          const std::vector<char> text(kText, 'x');
                          const std::vector<std::vector<char>> copies(3, text);
                      }
                      rusage after{};
                      (void)getrusage(RUSAGE_SELF, &after);
                      return after.ru_minflt - before.ru_minflt;
                  };
                  const long first = faultsOfText();
                  if (first < kPages / 2 || faultsOfText() > kPages / 20) {
                      return 10;
                  }
                  platform::giveBackFreedHeap();
                  return faultsOfText() < kPages / 2 ? 20 : 0;
              }),
              0);
}

} // namespace

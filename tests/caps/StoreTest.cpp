#include "caps/Store.h"

#include <chrono>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "tests/support/Database.h"
#include "tests/support/TemporaryFolder.h"

using caps::Contents;
using caps::Status;
using caps::Store;

namespace {

constexpr uid_t kNobody = 65534;

class StoreTest : public testing::Test {
protected:
    std::unique_ptr<Store> open(Store::Access access, Status expected = Status::ok) {
        std::unique_ptr<Store> store;
        std::string error;
        EXPECT_EQ(Store::open(path, access, store, &error), expected) << error;
        EXPECT_EQ(error.empty(), expected == Status::ok);
        return store;
    }

    // At a glance, once what was written is old enough for that.
    std::unique_ptr<Store> glanceAt(const std::string& file) {
        std::unique_ptr<Store> store;
        const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(20);
        do {
            EXPECT_EQ(Store::open(file, Store::Access::glance, store), Status::ok);
        } while (!store->glances() && std::chrono::steady_clock::now() < end);
        EXPECT_TRUE(store->glances());
        return store;
    }

    void execute(const char* sql) { executeSql(path, sql); }

    static Contents sample() {
        return {{{"P1",
                  {{"{a}", "normal", "/x/A.app", 4, {{0, "k", "v"}, {6, "k", ""}}},
                   {"{b}", "other", "", 2, {}}}},
                 {"P0", {}}},
                {{1, "/z", {{"b", "1"}, {"a", "2\n'\"\xC3\xA4"}}},
                 {2, "/a", {}},
                 {1, "/a", {{"k", "v"}}}}};
    }

    static void fill(Store& store, const Contents& contents) {
        for (const caps::Product& product : contents.products) {
            ASSERT_EQ(store.addProduct(product), Status::ok);
        }
        for (const caps::Subdomain& subdomain : contents.subdomains) {
            ASSERT_EQ(store.addSubdomain(subdomain.domain, subdomain.name), Status::ok);
            for (const caps::KeyValue& entry : subdomain.data) {
                ASSERT_EQ(
                    store.setDomainData(subdomain.domain, subdomain.name, entry.key, entry.value),
                    Status::ok);
            }
        }
    }

    TemporaryFolder folder;
    std::string path = folder.file("sub/caps.db");
};

TEST_F(StoreTest, givesBackWhatWasRegisteredInOrder) {
    {
        const auto store = open(Store::Access::create);
        fill(*store, sample());
    }
    const auto reader = open(Store::Access::read);
    Contents contents;
    ASSERT_EQ(reader->readAll(contents), Status::ok);
    EXPECT_EQ(contents, sample());
    std::vector<caps::Subdomain> domain;
    ASSERT_EQ(reader->readDomain(1, domain), Status::ok);
    EXPECT_EQ(domain.size(), 2U);
    EXPECT_EQ(reader->readDomain(7, domain), Status::nothingThere);
    EXPECT_EQ(reader->setDomainData(1, "/z", "b", "x"), Status::readOnly);

    const auto writer = open(Store::Access::write);
    EXPECT_EQ(writer->setDomainData(1, "/z", "b", "new"), Status::ok);
    EXPECT_EQ(writer->removeSubdomain(2, "/a"), Status::ok);
    EXPECT_EQ(writer->removeSubdomain(2, "/a"), Status::nothingThere);
    EXPECT_EQ(writer->removeDomainData(1, "/a", "nosuch"), Status::nothingThere);
    EXPECT_EQ(writer->removeProduct("P1"), Status::ok);
    EXPECT_EQ(writer->addProduct({"P0", {}}), Status::invalidArgument);
    EXPECT_EQ(writer->setPayloadData("{a}", 0, "k", "v"), Status::nothingThere)
        << "payloads go with their product";
    EXPECT_TRUE(reader->changed());
    EXPECT_FALSE(reader->changed());
    ASSERT_EQ(reader->readAll(contents), Status::ok);
    EXPECT_EQ(contents.subdomains.size(), 2U);
    EXPECT_EQ(contents.subdomains[0].data[0], (caps::KeyValue{"b", "new"})) << "keeps its place";
}

TEST_F(StoreTest, refusesTextsOverTheirLimits) {
    const auto store = open(Store::Access::create);
    const std::string key(255, 'k');
    const std::string value(65536, 'v');
    EXPECT_EQ(store->setDomainData(1, std::string(512, 's'), key, value), Status::ok);
    EXPECT_EQ(store->setDomainData(1, std::string(513, 's'), "k", "v"), Status::invalidArgument);
    EXPECT_EQ(store->setDomainData(1, "s", key + "k", "v"), Status::invalidArgument);
    EXPECT_EQ(store->setDomainData(1, "s", "k", value + "v"), Status::invalidArgument);
    EXPECT_EQ(store->setDomainData(1, "", "k", "v"), Status::invalidArgument);
    EXPECT_EQ(store->setDomainData(1, "s", "k", std::string("a\0b", 3)), Status::invalidArgument);
    EXPECT_EQ(store->addProduct({"P", {{"{p}", "normal", std::string(1024, '/'), 4, {}}}}),
              Status::invalidArgument);
    Contents contents;
    ASSERT_EQ(store->readAll(contents), Status::ok);
    EXPECT_EQ(contents.subdomains.size(), 1U);
    EXPECT_TRUE(contents.products.empty()) << "the whole product is refused";
}

TEST_F(StoreTest, forgetsATransactionThatIsNotCommitted) {
    const auto store = open(Store::Access::create);
    {
        Store::Transaction transaction(*store);
        ASSERT_EQ(transaction.begin(), Status::ok);
        ASSERT_EQ(store->setDomainData(1, "s", "k", "v"), Status::ok);
    }
    std::vector<caps::Subdomain> domain;
    EXPECT_EQ(store->readDomain(1, domain), Status::nothingThere);
    Store::Transaction outer(*store);
    ASSERT_EQ(outer.begin(), Status::ok);
    EXPECT_EQ(store->addProduct({"P", {{"{a}", "normal", "", 4, {}}, {"", "normal", "", 4, {}}}}),
              Status::invalidArgument);
    ASSERT_EQ(store->setDomainData(1, "s", "k", "v"), Status::ok);
    ASSERT_EQ(outer.commit(), Status::ok);
    Contents contents;
    ASSERT_EQ(store->readAll(contents), Status::ok);
    EXPECT_TRUE(contents.products.empty()) << "half a product is none";
    EXPECT_EQ(contents.subdomains.size(), 1U);
}

TEST_F(StoreTest, movesItsTimesForwardOncePerTransaction) {
    const auto store = open(Store::Access::create);
    uint32_t product = 0;
    uint32_t domain = 0;
    ASSERT_EQ(store->productModTime(product), Status::ok);
    ASSERT_EQ(store->domainModTime(domain), Status::ok);
    EXPECT_GT(domain, 1'700'000'000U);
    uint32_t last = domain;
    for (int i = 0; i < 5; ++i) { // within a second or two
        Store::Transaction transaction(*store);
        ASSERT_EQ(transaction.begin(), Status::ok);
        for (int k = 0; k < 100; ++k) {
            ASSERT_EQ(store->setDomainData(1, "s", "k" + std::to_string(k), std::to_string(i)),
                      Status::ok);
        }
        ASSERT_EQ(transaction.commit(), Status::ok);
        ASSERT_EQ(store->domainModTime(domain), Status::ok);
        EXPECT_GT(domain, last);
        last = domain;
    }
    EXPECT_LT(domain, static_cast<uint32_t>(time(nullptr)) + 20) << "not once per row";
    uint32_t unchanged = 0;
    ASSERT_EQ(store->productModTime(unchanged), Status::ok);
    EXPECT_EQ(unchanged, product);
    execute("UPDATE domain_data SET value = 'other program'");
    ASSERT_EQ(store->domainModTime(domain), Status::ok);
    EXPECT_GT(domain, last) << "the database keeps the times itself";
}

TEST_F(StoreTest, saysWhatIsWrongWithAFile) {
    open(Store::Access::read, Status::noDatabase);
    open(Store::Access::write, Status::noDatabase);
    EXPECT_FALSE(std::filesystem::exists(path)) << "reading and writing never make a database";
    std::filesystem::create_directories(folder.file("sub"));
    folder.write("sub/caps.db", "");
    open(Store::Access::read, Status::damaged);
    folder.write("sub/caps.db", std::string(5000, 'x'));
    open(Store::Access::read, Status::damaged);
    std::filesystem::remove(path);
    execute("CREATE TABLE theirs (x)");
    open(Store::Access::read, Status::foreign);
    open(Store::Access::create, Status::foreign);
    execute("PRAGMA application_id = 77");
    open(Store::Access::read, Status::foreign);
    std::filesystem::remove(path);
    { open(Store::Access::create); }
    execute("PRAGMA user_version = -1");
    open(Store::Access::read, Status::damaged);
    open(Store::Access::write, Status::damaged);
    execute("PRAGMA user_version = 1; CREATE VIEW v AS SELECT 1");
    open(Store::Access::read, Status::damaged);
    execute("DROP VIEW v; PRAGMA user_version = 99");
    open(Store::Access::read, Status::newerSchema);
    open(Store::Access::create, Status::newerSchema);
    for (const char* suffix : {"", "-wal", "-shm"}) {
        std::filesystem::remove(path + suffix);
    }
    std::filesystem::create_directory(path);
    open(Store::Access::read, Status::damaged);
    std::filesystem::remove(path);
    ASSERT_EQ(mkfifo(path.c_str(), 0600), 0);
    open(Store::Access::read, Status::damaged); // and does not wait for a writer
}

TEST_F(StoreTest, survivesEveryTruncationAndFlippedBytes) {
    {
        const auto store = open(Store::Access::create);
        fill(*store, sample());
        for (int i = 0; i < 200; ++i) {
            ASSERT_EQ(
                store->setDomainData(1, "/big", "k" + std::to_string(i), std::string(100, 'v')),
                Status::ok);
        }
    }
    execute("PRAGMA wal_checkpoint(TRUNCATE); PRAGMA journal_mode = DELETE");
    const std::string whole = TemporaryFolder::read(path);
    ASSERT_GT(whole.size(), 8192U);
    int failures = 0;
    const auto readBroken = [&](const std::string& bytes) {
        folder.write("sub/caps.db", bytes);
        std::unique_ptr<Store> store;
        Contents contents;
        Status status = Store::open(path, Store::Access::read, store);
        if (status == Status::ok) {
            status = store->readAll(contents);
        }
        EXPECT_NE(status, Status::nothingThere);
        failures += status != Status::ok ? 1 : 0;
    };
    for (size_t length = 0; length < whole.size(); length += 509) {
        readBroken(whole.substr(0, length));
    }
    EXPECT_GT(failures, 10) << "a truncated database is not read as a whole one";
    for (size_t at = 0; at < whole.size(); at += 61) {
        std::string bytes = whole;
        bytes[at] = static_cast<char>(~bytes[at]);
        readBroken(bytes);
    }
}

TEST_F(StoreTest, passesOverRowsThatNoProgramOfOursWrites) {
    { fill(*open(Store::Access::create), sample()); }
    execute("PRAGMA ignore_check_constraints = ON; PRAGMA foreign_keys = OFF;"
            "INSERT INTO subdomain (domain, name) VALUES (1, x'2F620063'), (1, '');"
            "INSERT INTO domain_data SELECT id, 1, x'6B00FF', x'76FF00', '' FROM subdomain WHERE "
            "domain = 1 AND typeof(name) = 'blob';"
            "INSERT INTO domain_data VALUES (999, 1, 'of', 'nothing', '');"
            "INSERT INTO subdomain (domain, name) VALUES (1, hex(zeroblob(1000)));"
            "INSERT INTO payload (product, code, kind, launch_path, install_state) VALUES (1, "
            "'{c}', 7, hex(zeroblob(600)), 'many')");
    const auto store = open(Store::Access::read);
    Contents contents;
    ASSERT_EQ(store->readAll(contents), Status::ok);
    ASSERT_EQ(contents.subdomains.size(), 4U);
    EXPECT_EQ(contents.subdomains[3].name, "/b") << "up to the first zero byte";
    ASSERT_EQ(contents.subdomains[3].data.size(), 1U);
    EXPECT_EQ(contents.subdomains[3].data[0], (caps::KeyValue{"k", "v\xFF"}));
    EXPECT_EQ(contents.products[0].payloads.size(), 2U);
    EXPECT_EQ(contents.refused.size(), 3U) << "two subdomains and a payload, said so";
}

// The rows of payloads are read in one scan beside that of the products, whose order need not be
// that of the payloads' numbers.
TEST_F(StoreTest, readsEachPayloadsDataInWhateverOrderTheyWereAdded) {
    {
        const auto store = open(Store::Access::create);
        for (const char* code : {"A", "B", "C"}) {
            ASSERT_EQ(store->addProduct({code, {}}), Status::ok);
        }
    }
    std::string rows;
    // Of the first product the first and the last, of the others those between, the later one's
    // before the earlier one's; refused ones among them.
    const int productOf[] = {1, 3, 2, 3, 2, 1, 3, 1};
    for (int payload = 1; payload <= 8; ++payload) {
        const std::string number = std::to_string(payload);
        const std::string code = payload == 4 ? "''" : std::string("'p").append(number).append("'");
        rows += "INSERT INTO payload VALUES (" + number + ", " +
                std::to_string(productOf[payload - 1]) + ", " + code + ", 'normal', '', 4);";
        for (const char* key : {"x", "y"}) {
            rows += "INSERT INTO payload_data VALUES (" + number + ", " +
                    (*key == 'x' ? "1" : "2") + ", 0, '" + key + "', '" + key + number + "');";
        }
    }
    rows +=
        "PRAGMA foreign_keys = OFF; INSERT INTO payload_data VALUES (77, 1, 0, 'of', 'nothing');";
    execute(rows.c_str());
    std::vector<caps::Product> products;
    ASSERT_EQ(open(Store::Access::read)->readProducts(products), Status::ok);
    std::string told;
    for (const caps::Product& product : products) {
        told += product.code + ":";
        for (const caps::Payload& payload : product.payloads) {
            told += " " + payload.code;
            for (const caps::PayloadValue& value : payload.data) {
                told += " " + value.key + "=" + value.value;
            }
        }
        told += "\n";
    }
    EXPECT_EQ(told, "A: p1 x=x1 y=y1 p6 x=x6 y=y6 p8 x=x8 y=y8\n"
                    "B: p3 x=x3 y=y3 p5 x=x5 y=y5\n"
                    "C: p2 x=x2 y=y2 p7 x=x7 y=y7\n");
}

TEST_F(StoreTest, knowsOfEachEntryWhenItWasWrittenAndWhereItComesFrom) {
    const auto store = open(Store::Access::create);
    store->setOrigin("one.toml");
    ASSERT_EQ(store->setDomainData(1, "/a", "k", "v"), Status::ok);
    ASSERT_EQ(store->setDomainData(1, "/a", "l", "v"), Status::ok);
    ASSERT_EQ(store->addProduct({"P", {{"{p}", "normal", "/p", 4, {}}}}), Status::ok);
    ASSERT_EQ(store->setChanged(1, "/a", 1000), Status::ok);
    ASSERT_EQ(store->setProductChanged("P", 1000), Status::ok);
    Contents before;
    ASSERT_EQ(store->readAll(before), Status::ok);
    EXPECT_EQ(before.subdomains[0].changed, 1000);
    EXPECT_EQ(before.subdomains[0].data[1].origin, "one.toml");
    EXPECT_EQ(before.products[0].changed, 1000);
    EXPECT_EQ(before.products[0].origin, "one.toml");

    store->setOrigin("");
    ASSERT_EQ(store->setDomainData(1, "/a", "k", "by hand"), Status::ok);
    ASSERT_EQ(store->addSubdomain(1, "/b"), Status::ok);
    ASSERT_EQ(store->replaceProduct({"P", {}}), Status::ok);
    ASSERT_EQ(store->clearSubdomain(1, "/b"), Status::ok);
    Contents after;
    ASSERT_EQ(store->readAll(after), Status::ok);
    EXPECT_GT(after.subdomains[0].changed, 1000);
    EXPECT_EQ(after.subdomains[0].data[0].origin, "");
    EXPECT_EQ(after.subdomains[0].data[1].origin, "one.toml");
    EXPECT_GT(after.products[0].changed, 1000);
    EXPECT_EQ(after.products[0].origin, "");
    EXPECT_TRUE(after.products[0].payloads.empty());
    EXPECT_EQ(store->replaceProduct({"Q", {}}), Status::nothingThere);
}

// Without locks, and so without the writer's knowledge: each kind of change must be seen all the
// same.
TEST_F(StoreTest, seesEachChangeOfAFileThatItGlancesAt) {
    const Contents changed{{}, {{1, "/a", {{"k", "changed"}}}}};
    sqlite3* writer = nullptr;
    const auto leave = [&] { // committed, and kept in the file beside the database
        ASSERT_EQ(sqlite3_open(path.c_str(), &writer), SQLITE_OK);
        ASSERT_EQ(sqlite3_exec(writer,
                               "PRAGMA foreign_keys = ON; PRAGMA wal_autocheckpoint = 0; "
                               "DELETE FROM product; DELETE FROM subdomain; INSERT INTO subdomain "
                               "(domain, name) VALUES "
                               "(1, '/a'); INSERT INTO domain_data (subdomain, position, key, "
                               "value) SELECT id, 1, 'k', 'changed' FROM subdomain",
                               nullptr, nullptr, nullptr),
                  SQLITE_OK)
            << sqlite3_errmsg(writer);
    };
    const auto write = [&](const std::string& file) {
        auto store = openStore(file);
        ASSERT_EQ(store->clear(), Status::ok);
        fill(*store, changed);
    };
    const auto replace = [&] {
        const std::string other = folder.file("sub/other.db");
        write(other);
        std::filesystem::rename(other, path);
    };
    struct Change {
        const char* what;
        std::function<void()> make;
        bool showsInTheFile; // so that a reading that it meets is of no one state
    };
    const Change changes[] = {{"left beside the file", leave, false},
                              {"moved to the file", [&] { write(path); }, true},
                              {"another file in its place", replace, true}};
    for (const Change& change : changes) {
        SCOPED_TRACE(change.what);
        std::filesystem::remove_all(folder.file("sub"));
        { fill(*open(Store::Access::create), sample()); }
        const std::unique_ptr<Store> store = glanceAt(path);
        Contents contents;
        EXPECT_EQ(store->readAll(contents), Status::ok);
        EXPECT_EQ(contents, sample());
        EXPECT_FALSE(store->changed());
        struct Meeting : Store::Visitor {
            void onSubdomain(int32_t, std::string_view) override {
                if (make) {
                    std::exchange(make, nullptr)();
                }
            }
            std::function<void()> make;
        } meeting;
        meeting.make = change.make;
        EXPECT_EQ(store->visitAllDomains(meeting),
                  change.showsInTheFile ? Status::busy : Status::ok);
        EXPECT_TRUE(store->changed());
        const std::unique_ptr<Store> anew = open(Store::Access::glance);
        EXPECT_FALSE(anew->glances());
        EXPECT_EQ(anew->readAll(contents), Status::ok);
        EXPECT_EQ(contents, changed);
        (void)sqlite3_close(std::exchange(writer, nullptr));
    }
    // What is committed lies beside the file that a link leads to.
    { fill(*open(Store::Access::create), Contents{}); }
    (void)glanceAt(path);
    const std::string link = folder.file("link.db");
    std::filesystem::create_symlink(path, link);
    std::filesystem::copy_file(path + "-wal", link + "-wal");
    auto store = openStore(link, caps::Store::Access::glance);
    EXPECT_FALSE(store->glances());
}

// The system's database belongs to root; everybody reads it.
TEST_F(StoreTest, isReadByWhoMayNotWriteItsFolder) {
    { fill(*open(Store::Access::create), sample()); }
    const auto readAsOther = [this] {
        const pid_t child = fork();
        if (child == 0) {
            if (geteuid() == 0 && setuid(kNobody) != 0) {
                _exit(99);
            }
            std::unique_ptr<Store> store;
            Contents contents;
            Status status = Store::open(path, Store::Access::read, store);
            if (status == Status::ok) {
                status = store->readAll(contents);
            }
            _exit(status == Status::ok && contents == sample() ? 0 : 10 + static_cast<int>(status));
        }
        int status = 0;
        EXPECT_EQ(waitpid(child, &status, 0), child);
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    };
    std::filesystem::permissions(folder.file(""), std::filesystem::perms(0755));
    std::filesystem::permissions(folder.file("sub"), std::filesystem::perms(0555));
    std::filesystem::permissions(path, std::filesystem::perms(0444));
    EXPECT_EQ(readAsOther(), 0) << "with the writer's files beside it";
    std::filesystem::permissions(folder.file("sub"), std::filesystem::perms(0755));
    std::filesystem::remove(path + "-wal");
    std::filesystem::remove(path + "-shm");
    std::filesystem::permissions(folder.file("sub"), std::filesystem::perms(0555));
    EXPECT_EQ(readAsOther(), 0) << "without them";
    std::filesystem::permissions(folder.file("sub"), std::filesystem::perms(0755));
}

} // namespace

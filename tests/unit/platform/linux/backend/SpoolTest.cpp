/// The spool on disk: order, limits, what cannot be used, and what a power cut leaves.
#include <sys/resource.h>

#include <cerrno>
#include <random>

#include "backend/Spool.h"
#include "tests/support/Test.h"

namespace {

namespace fs = std::filesystem;
using namespace kyo::orx;
using namespace vlmTest;

SpooledEnvelope envelope(const std::string& id, std::size_t size = 100, std::int64_t storedMs = 1000) {
    return {0, storedMs, id, static_cast<std::uint32_t>(size), Encoding::Plain, std::string(size, 'x')};
}

/// Identifiers of all that waits, in order, read from disk.
std::vector<std::string> idsIn(Spool& spool) {
    std::vector<std::string> ids;
    for (auto entry = spool.next(0); entry; entry = spool.next(entry->number)) {
        if (SpooledEnvelope read; spool.read(*entry, read) == Spool::Read::Whole) {
            ids.push_back(read.messageId);
        }
    }
    return ids;
}

/// A disk that refuses, and does not wait for the real one.
struct FastDisk : SpoolDisk {
    int write(const Path& file, std::string_view content) override {
        if (refusal == 0) {
            std::ofstream(file, std::ios::binary) << content;
        }
        return refusal;
    }
    int rename(const Path& from, const Path& to) override {
        return refusal == EROFS ? refusal : SpoolDisk::rename(from, to);
    }
    int remove(const Path& file) override { return refusal == EROFS ? refusal : SpoolDisk::remove(file); }
    int syncFolder(const Path&) override {
        isWritten = true;
        const std::lock_guard<std::mutex> lock(slow);
        return refusal;
    }
    int refusal = 0;
    std::mutex slow;  ///< while a test has it, nothing is synchronised
    std::atomic<bool> isWritten{false};
};

struct SpoolTest : Test {
    /// The only one, in place of an earlier one.
    const std::unique_ptr<Spool>& opened(Spool::Settings settings = {}) {
        settings.folder = m_folder.file("a/spool");
        m_spool.reset();
        m_spool = std::make_unique<Spool>(settings, m_disk);
        std::string error;
        EXPECT_TRUE(m_spool->open(error)) << error;
        return m_spool;
    }
    Spool::Stored store(SpooledEnvelope made) {
        std::string error;
        return m_spool->store(made, error);
    }
    /// Envelopes named 1, 2, ..., a second apart.
    void storeUpTo(std::int64_t last) {
        for (std::int64_t i = 1; i <= last; ++i) {
            EXPECT_EQ(store(envelope(std::to_string(i), 100, 1000 * i)), Spool::Stored::Durably);
        }
    }
    fs::path file(std::uint64_t number, std::size_t size = 100) {
        return Spool::fileOf(m_folder.file("a/spool"), {number, kyo::orx::kSpoolHeaderBytes + 1 + size});
    }

    TemporaryFolder m_folder;
    LogCapture m_log;
    FastDisk m_disk;
    std::unique_ptr<Spool> m_spool;
};

TEST_F(SpoolTest, KeepsOrderAndNumbersOverRestartsAndRefusalsOfTheDiskAndHasOneOwner) {
    const auto& spool = opened();
    std::string error;
    SpooledEnvelope refused = envelope("refused");
    m_disk.refusal = ENOSPC;
    EXPECT_EQ(spool->store(refused, error), Spool::Stored::NotYet);
    EXPECT_THAT(error, HasSubstr("No space left"));
    EXPECT_EQ(spool->waiting(), 0u);
    m_disk.refusal = 0;
    storeUpTo(3);
    EXPECT_FALSE(Spool({m_folder.file("a/spool")}, m_disk).open(error));
    EXPECT_NE(error.find("belongs to another process"), std::string::npos) << error;
    opened();
    EXPECT_EQ(idsIn(*spool), (std::vector<std::string>{"1", "2", "3"}));
    while (const auto entry = spool->next(0)) {
        spool->remove(*entry);
    }
    EXPECT_EQ(spool->bytes(), 0u);
    opened();  // empty, and yet it goes on counting
    EXPECT_EQ(store(envelope("d")), Spool::Stored::Durably);
    EXPECT_EQ(spool->next(0)->number, 4u);
    m_spool.reset();

    std::ofstream(m_folder.file("a/spool/format")) << "vlm-spool 2\n";
    EXPECT_FALSE(Spool({m_folder.file("a/spool")}, m_disk).open(error));
    EXPECT_NE(error.find("is a spool of format 2, and format 1 is known"), std::string::npos) << error;
}

TEST_F(SpoolTest, ReadsABacklogOfAnyLengthInOrder) {
    constexpr std::uint64_t kCount = Spool::kAhead + 300;
    const auto& spool = opened();
    storeUpTo(kCount);
    for (int round = 0; round < 2; ++round) {
        std::uint64_t expected = 0;
        for (auto entry = spool->next(0); entry; entry = spool->next(entry->number)) {
            ASSERT_EQ(entry->number, ++expected);
        }
        EXPECT_EQ(expected, kCount);
        opened();  // the second time nothing is known of what was stored
    }
    EXPECT_EQ(spool->waiting(), kCount);
}

TEST_F(SpoolTest, NeverExceedsItsLimitAndCountsEveryDrop) {
    for (const bool oldest : {true, false}) {
        constexpr std::uint64_t kMaxBytes = 10u << 20;
        const std::uint64_t before = counted("spool.dropped.full");
        const auto& spool = opened({.folder = {}, .maxBytes = kMaxBytes, .dropOldest = oldest});
        std::uint64_t dropped = 0;
        for (int i = 1; i <= 1000; ++i) {
            const auto outcome = store(envelope(std::to_string(i), 20000 + 37 * static_cast<std::size_t>(i)));
            dropped += outcome == Spool::Stored::Dropped ? 1 : 0;
            if (i % 50 != 0) {
                continue;
            }
            std::uint64_t onDisk = 0;
            for (const auto& entry : fs::directory_iterator(spool->folder())) {
                onDisk += (entry.file_size() + 4095) / 4096 * 4096;
            }
            ASSERT_LE(onDisk, kMaxBytes + 4096);  // and the file "format"
        }
        const std::vector<std::string> ids = idsIn(*spool);
        EXPECT_EQ(counted("spool.dropped.full") - before, 1000 - ids.size());
        EXPECT_EQ(dropped, oldest ? 0 : 1000 - ids.size());
        EXPECT_TRUE(
            m_log.waitFor(oldest ? "of the oldest envelopes dropped" : "of the newest envelopes dropped"));
        EXPECT_TRUE(std::ranges::is_sorted(ids, {}, [](const std::string& id) { return std::stoi(id); }));
        EXPECT_EQ(ids.back() == "1000", oldest);
        opened();
        EXPECT_EQ(spool->highest(), 1000u);  // a dropped one used its number up
        m_disk.refusal = EROFS;
        spool->skipNumber();
        m_disk.refusal = 0;
        while (const auto entry = spool->next(0)) {
            spool->remove(*entry);
        }
        EXPECT_EQ(opened()->highest(), 1001u);
        fs::remove_all(m_folder.file("a"));
    }
}

TEST_F(SpoolTest, DropsWhatIsOnItsWayLastAndWhatIsTooOld) {
    const auto& spool = opened({.folder = {}, .maxBytes = 3 * 4096, .maxAgeSeconds = 60});
    storeUpTo(3);
    spool->setOnItsWay(1, true);
    store(envelope("4", 100, 100'000));
    EXPECT_EQ(idsIn(*spool), (std::vector<std::string>{"1", "3", "4"}));
    EXPECT_EQ(spool->oldestStoredMs(), 1000);
    spool->dropOld(62'500);
    EXPECT_EQ(idsIn(*spool), (std::vector<std::string>{"3", "4"}));
    EXPECT_EQ(store(envelope("5", 13000)), Spool::Stored::Dropped);
}

TEST_F(SpoolTest, MovesAsideWhatCannotBeUsedAndGoesOn) {
    const auto& spool = opened();
    storeUpTo(6);
    fs::resize_file(file(1), 30);
    fs::resize_file(file(2), 100);
    std::fstream(file(3), std::ios::in | std::ios::out).seekp(60).put('y');
    std::ofstream(file(4)) << "something else altogether, and longer than a header";
    fs::copy_file(file(6), file(5), fs::copy_options::overwrite_existing);
    const std::uint64_t before = counted("spool.setAside");
    EXPECT_EQ(idsIn(*spool), (std::vector<std::string>{"6"}));
    EXPECT_EQ(counted("spool.setAside") - before, 5u);
    for (const char* why : {"it ends inside its header", "are not the", "its checksum is wrong",
                            "it is no spool file", "it holds number 6"}) {
        EXPECT_TRUE(m_log.waitFor(why)) << why;
    }
    EXPECT_EQ(spool->bytes(), 6u * 4096);  // those count, too
    spool->setAside(*spool->next(0), "the broker does not want it");
    opened({{}, 6 * 4096});
    EXPECT_EQ(spool->bytes(), 6u * 4096);
    EXPECT_EQ(store(envelope("7")), Spool::Stored::Durably);  // at the cost of a bad one
    EXPECT_EQ(spool->next(0)->number, 7u);
    EXPECT_FALSE(fs::exists(Spool::fileOf(spool->folder() / "bad", {1, 141})));
}

TEST_F(SpoolTest, CountsWhatADiskDoesNotDeleteAndDropsNothingForIt) {
    const auto& spool = opened({.folder = {}, .maxBytes = 5 * 4096});
    storeUpTo(5);
    opened({.folder = {}, .maxBytes = 5 * 4096});
    const std::uint64_t before = counted("spool.dropped.full");
    m_disk.refusal = EROFS;
    for (const std::uint64_t number : {1, 2, 3}) {
        spool->remove({number, 141});
    }
    spool->setAside({4, 141}, "the broker does not want it");
    EXPECT_EQ(idsIn(*spool), std::vector<std::string>{"5"});
    EXPECT_EQ(spool->waiting(), 1u);
    EXPECT_EQ(spool->bytes(), 5u * 4096);
    EXPECT_EQ(store(envelope("6")), Spool::Stored::NotYet);
    m_disk.refusal = 0;
    EXPECT_EQ(store(envelope("6")), Spool::Stored::Durably);
    EXPECT_EQ(idsIn(*spool), (std::vector<std::string>{"5", "6"}));
    EXPECT_EQ(spool->bytes(), 3u * 4096);
    EXPECT_TRUE(fs::exists(Spool::fileOf(spool->folder() / "bad", {4, 141})));
    EXPECT_FALSE(fs::exists(file(3)));
    EXPECT_EQ(counted("spool.dropped.full"), before);
}

TEST_F(SpoolTest, ShowsWhatWaitsWhileAnEnvelopeIsSynchronisedAndNotThatOne) {
    const auto& spool = opened();
    store(envelope("a"));
    spool->skipNumber();
    opened();
    std::unique_lock<std::mutex> slow(m_disk.slow);
    m_disk.isWritten = false;
    std::thread storing([&] { store(envelope("b")); });
    EXPECT_TRUE(eventually([&] { return m_disk.isWritten.load(); }));
    EXPECT_EQ(idsIn(*spool), std::vector<std::string>{"a"});
    spool->remove({1, 141});
    slow.unlock();
    storing.join();
    EXPECT_EQ(idsIn(*spool), std::vector<std::string>{"b"});
}

TEST_F(SpoolTest, LeavesAFileWhereItIsWhileTheSystemHasNoDescriptorForIt) {
    const auto& spool = opened();
    store(envelope("a"));
    opened({{}, 4096});
    rlimit limit{};
    ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &limit), 0);
    const rlimit none{0, limit.rlim_max};
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &none), 0);
    SpooledEnvelope read;
    int error = 0;
    EXPECT_FALSE(spool->next(0, error));
    EXPECT_EQ(error, EMFILE);
    EXPECT_EQ(store(envelope("b")), Spool::Stored::NotYet);
    EXPECT_EQ(spool->read({1, 141}, read), Spool::Read::NotNow);
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &limit), 0);
    EXPECT_EQ(idsIn(*spool), std::vector<std::string>{"a"});
}

/// Records what is done to the disk, and lays out what a power cut would leave of it: all that a later
/// synchronisation has covered, and of the rest whatever chance keeps - each change for itself, in order.
class RecordingDisk : public SpoolDisk {
  public:
    int write(const Path& file, std::string_view content) override {
        m_log.push_back({Kind::Begun, file, std::string(content)});
        m_log.push_back({Kind::Content, file, std::string(content)});
        return SpoolDisk::write(file, content);
    }
    int rename(const Path& from, const Path& to) override {
        m_log.push_back({Kind::Renamed, from, to});
        return SpoolDisk::rename(from, to);
    }
    int syncFolder(const Path& folder) override {
        m_log.push_back({Kind::Sync, {}, {}});
        return SpoolDisk::syncFolder(folder);
    }
    int remove(const Path& file) override {
        m_log.push_back({Kind::Removed, file, {}});
        return SpoolDisk::remove(file);
    }
    int truncate(const Path& file) override {
        m_log.push_back({Kind::Emptied, file, {}});
        return SpoolDisk::truncate(file);
    }
    std::size_t length() const { return m_log.size(); }
    /// The length behind the first synchronisation after `from`, or "never".
    std::size_t syncedAfter(std::size_t from) const {
        while (from < m_log.size() && m_log[from].kind != Kind::Sync) {
            ++from;
        }
        return from < m_log.size() ? from + 1 : SIZE_MAX;
    }

    /// Writes to `target` what is left when the power goes after that many changes.
    void layOut(std::size_t length, std::mt19937& chance, const Path& folder, const Path& target) const {
        std::size_t safe = length;
        while (safe > 0 && m_log[safe - 1].kind != Kind::Sync) {
            --safe;
        }
        Files files;
        for (std::size_t i = 0; i < length; ++i) {
            if (i < safe || m_log[i].kind == Kind::Content || chance() % 2 != 0) {
                apply(m_log[i], files, chance);
            }
        }
        for (const auto& [name, content] : files) {
            const Path file = target / name.lexically_relative(folder);
            fs::create_directories(file.parent_path());
            std::ofstream(file, std::ios::binary) << content;
        }
    }

  private:
    using Files = std::map<Path, std::string>;
    enum class Kind { Begun, Content, Renamed, Removed, Emptied, Sync };  ///< Content: synchronised by itself
    struct Change {
        Kind kind;
        Path file;
        std::string text;  ///< what is written, or the new name
    };
    static void apply(const Change& change, Files& files, std::mt19937& chance) {
        if (change.kind == Kind::Begun) {
            files[change.file] = change.text.substr(0, chance() % (change.text.size() + 1));
        } else if (auto node = files.extract(change.file); node && change.kind == Kind::Renamed) {
            files[change.text] = node.mapped();
        } else if (node && change.kind != Kind::Removed) {
            files[change.file] = change.text;
        }
    }
    std::vector<Change> m_log;
};

TEST(SpoolPowerCutTest, LosesNothingThatWasStoredAndRestoresNothingWhoseDeletionWasWritten) {
    const LogCapture quiet;
    std::mt19937 chance(20260101);
    for (int round = 0; round < 20; ++round) {
        const TemporaryFolder place;
        const fs::path folder = place.file("spool");
        RecordingDisk disk;
        struct Life {
            std::size_t stored = 0;          ///< length of the log when store() had returned
            std::size_t removed = SIZE_MAX;  ///< when its deletion was asked for
        };
        std::map<std::uint64_t, Life> lives;
        {
            Spool spool({folder}, disk);
            std::string error;
            ASSERT_TRUE(spool.open(error)) << error;
            for (int step = 0; step < 40; ++step) {
                const auto oldest = spool.next(0);
                if (oldest && chance() % 2 == 0) {
                    lives[oldest->number].removed = disk.length();
                    spool.remove(*oldest);
                } else if (chance() % 4 == 0) {
                    spool.skipNumber();
                } else {
                    SpooledEnvelope made = envelope(std::to_string(spool.highest() + 1), chance() % 5000);
                    ASSERT_EQ(spool.store(made, error), Spool::Stored::Durably) << error;
                    lives[made.number].stored = disk.length();
                }
            }
        }
        for (int cut = 0; cut < 50; ++cut) {
            const TemporaryFolder after;
            const std::size_t length = chance() % (disk.length() + 1);
            disk.layOut(length, chance, folder, after.file("spool"));
            Spool spool({after.file("spool")});
            std::string error;
            ASSERT_TRUE(spool.open(error)) << error;
            std::set<std::uint64_t> found;
            for (auto entry = spool.next(0); entry; entry = spool.next(entry->number)) {
                SpooledEnvelope read;
                ASSERT_EQ(spool.read(*entry, read), Spool::Read::Whole) << "a name with half a content";
                EXPECT_EQ(read.messageId, std::to_string(read.number));
                found.insert(read.number);
            }
            for (const auto& [number, life] : lives) {
                if (life.stored <= length && length < life.removed) {
                    EXPECT_EQ(found.count(number), 1u) << number << " was lost, cut at " << length;
                }
                if (disk.syncedAfter(life.removed) <= length) {
                    EXPECT_EQ(found.count(number), 0u) << number << " came back, cut at " << length;
                }
                if (life.stored <= length) {
                    EXPECT_GE(spool.highest(), number) << "its number would be used again";
                }
            }
        }
    }
}

}  // namespace

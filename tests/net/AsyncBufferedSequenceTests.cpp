#include "net/AsyncBufferedCollection.h"
#include "net/AsyncBufferedEmptySequence.h"
#include "net/AsyncBufferedFileSequence.h"
#include "net/ConsumingAsyncSequence.h"

#include "async/Async.h"
#include "e2e/Process.h"
#include "net/FdLeakCheck.h"
#include "net/OwnedDescriptor.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/stat.h>

#include <atomic>
#include <filesystem>
#include <fstream>
#include <future>

using namespace orvel;
using ::testing::StrEq;
using ::testing::ThrowsMessage;
using File = net::AsyncBufferedFileSequence;

namespace {

net::Bytes pattern(std::size_t count) {
    net::Bytes bytes(count);
    for (std::size_t i = 0; i < count; ++i) bytes[i] = static_cast<net::Byte>(i * 7 + i / 251);
    return bytes;
}

net::Bytes slice(const net::Bytes& bytes, std::size_t first, std::size_t last) {
    return net::Bytes(bytes.begin() + static_cast<std::ptrdiff_t>(first), bytes.begin() + static_cast<std::ptrdiff_t>(last));
}

// Every buffer the source hands out, in order.
async::Task<std::vector<net::Bytes>> runs(net::AsyncByteSequence& source, std::size_t suggested) {
    std::vector<net::Bytes> all;
    while (auto run = co_await source.nextBuffer(suggested)) all.push_back(std::move(*run));
    co_return all;
}

async::Task<net::Bytes> collect(net::AsyncByteSequence& source, std::size_t suggested) {
    net::Bytes all;
    while (auto run = co_await source.nextBuffer(suggested)) all.insert(all.end(), run->begin(), run->end());
    co_return all;
}

}  // namespace

TEST(BufferedCollection, HandsOutRunsOfAtMostTheSuggestedSizeAndAViewReadsTheBorrowedBytesInPlace) {
    const auto bytes = pattern(10);
    auto iterator = net::AsyncBufferedCollection(bytes).makeIterator();
    EXPECT_EQ(async::syncWait(runs(iterator, 4)), (std::vector{slice(bytes, 0, 4), slice(bytes, 4, 8), slice(bytes, 8, 10)}));
    EXPECT_EQ(async::syncWait(iterator.next()), std::nullopt);

    const std::string text = "borrowed";
    const auto collection = net::AsyncBufferedCollection::view(std::string_view(text));
    auto first = collection.makeIterator();
    EXPECT_EQ(static_cast<const void*>(first.remaining().data()), static_cast<const void*>(text.data()));
    EXPECT_EQ(async::syncWait(first.next()), net::Byte('b'));
    auto second = collection.makeIterator();  // from the first byte again
    EXPECT_EQ(async::syncWait(collect(second, 3)), net::Bytes(text.begin(), text.end()));
}

namespace {
async::Task<bool> endsOnlyOnceCancelled(net::AsyncBufferedEmptySequence::Iterator iterator, std::atomic<bool>* started) {
    started->store(true);
    started->notify_all();
    const bool ended = !(co_await iterator.nextBuffer(16));
    const bool cancelled = async::isCancelled();
    co_return ended && cancelled && !(co_await iterator.next());  // a later call ends at once
}
}  // namespace

TEST(EmptySequence, EndsAtOnceWhenCompletingElseOnlyOnceItsTaskIsCancelled) {
    auto completing = net::AsyncBufferedEmptySequence(true).makeIterator();
    EXPECT_EQ(async::syncWait(completing.nextBuffer(4096)), std::nullopt);

    std::atomic<bool> started{false};
    auto handle = async::spawn(endsOnlyOnceCancelled(net::AsyncBufferedEmptySequence(false).makeIterator(), &started));
    started.wait(false);  // a faulty sequence ends right after this, before the cancellation
    handle.cancel();
    EXPECT_TRUE(handle.wait());
}

// Real files in a private temporary directory; every test also checks that no descriptor leaks.
class FileSequence : public test::FdLeakCheck {
protected:
    std::filesystem::path write(const std::string& name, const net::Bytes& bytes) const {
        auto file = directory / name;
        std::ofstream(file, std::ios::binary).write(reinterpret_cast<const char*>(bytes.data()),
                                                    static_cast<std::streamsize>(bytes.size()));
        return file;
    }

    test::TemporaryFolder folder;
    const std::filesystem::path directory = folder.path();
};

TEST_F(FileSequence, EveryIteratorOpensOnItsFirstPullAndReadsTheWholeFileInRunsOfAtMostTheSuggestedSizeOrByteByByte) {
    const File file(directory / "body.bin");
    auto early = file.makeIterator();  // made before the file exists
    write("body.bin", pattern(10000));
    auto halfway = file.makeIterator();  // dropped with its descriptor open: the fixture checks it closes
    EXPECT_EQ(async::syncWait(halfway.nextBuffer(100))->size(), 100u);
    net::Bytes joined;
    for (const auto& run : async::syncWait(runs(early, 4096))) {
        EXPECT_LE(run.size(), 4096u);
        joined.insert(joined.end(), run.begin(), run.end());
    }
    EXPECT_EQ(joined, pattern(10000));

    auto mixed = file.makeIterator();
    net::Bytes got;
    for (int i = 0; i < 3; ++i) got.push_back(*async::syncWait(mixed.next()));
    const auto run = async::syncWait(mixed.nextBuffer(5000));
    got.insert(got.end(), run->begin(), run->end());
    while (auto byte = async::syncWait(mixed.next())) got.push_back(*byte);
    EXPECT_EQ(got, pattern(10000));
}

TEST_F(FileSequence, FileSizeFollowsLinksAndEveryFailureNamesItsCallAndPath) {
    const auto file = write("body.bin", pattern(12345));
    std::filesystem::create_symlink(file, directory / "link");
    EXPECT_EQ(File::fileSize(directory / "link"), 12345);
    EXPECT_EQ(File::fileSize(write("empty", {})), 0);
    const auto missing = directory / "missing.txt";
    EXPECT_THAT([&] { File::fileSize(missing); },
                ThrowsMessage<File::FileError>(StrEq("FileError. Stat(2): No such file or directory (" + missing.string() + ")")));
    EXPECT_THAT([&] { File::fileSize(directory); }, ThrowsMessage<File::FileSizeError>(StrEq("File size not found")));

    const auto fifo = directory / "pipe";
    ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
    const std::pair<std::filesystem::path, std::string> opens[] = {
        {missing, "FileError. Open(2): No such file or directory (" + missing.string() + ")"},
        {directory, "FileError. Open(21): Is a directory (" + directory.string() + ")"},
        // Without a writer: the open must neither wait (holding a pool thread) nor read it.
        {fifo, "FileError. Open: Not a regular file (" + fifo.string() + ")"},
    };
    for (const auto& [path, error] : opens) {
        SCOPED_TRACE(path);
        auto iterator = File(path).makeIterator();
        auto pull = std::async(std::launch::async, [&] { async::syncWait(iterator.nextBuffer(16)); });
        if (pull.wait_for(std::chrono::seconds(60)) == std::future_status::timeout) {
            net::OwnedDescriptor writer(::open(fifo.c_str(), O_WRONLY | O_CLOEXEC));  // frees the waiting open
            ADD_FAILURE() << "opening waited";
        }
        EXPECT_THAT([&] { pull.get(); }, ThrowsMessage<File::FileError>(StrEq(error)));
    }
}

TEST(ConsumingSequence, IteratorsTakeTurnsOnOnePass) {
    const auto bytes = pattern(10);
    const net::ConsumingAsyncSequence sequence{net::AsyncBufferedCollection(bytes)};
    auto first = sequence.makeIterator();
    auto second = sequence.makeIterator();
    EXPECT_EQ(*async::syncWait(first.nextBuffer(4)), slice(bytes, 0, 4));
    EXPECT_EQ(*async::syncWait(second.next()), bytes[4]);
    EXPECT_EQ(*async::syncWait(first.nextBuffer(100)), slice(bytes, 5, 10));
    EXPECT_EQ(async::syncWait(second.nextBuffer(1)), std::nullopt);
    EXPECT_EQ(sequence.index(), 10u);
}

namespace {
async::Task<std::vector<net::Bytes>> takeRuns(net::ConsumingAsyncSequence::Iterator iterator, std::size_t suggested) {
    co_return co_await runs(iterator, suggested);
}

// A base whose every pull suspends for a moment, and that counts the passes made over it.
struct SlowBase {
    struct Iterator final : net::AsyncByteSequence {
        explicit Iterator(net::AsyncBufferedCollection::Iterator bytes) : bytes(std::move(bytes)) {}
        net::AsyncBufferedCollection::Iterator bytes;
        async::Task<std::optional<net::Byte>> next() override {
            co_await async::sleep(std::chrono::microseconds(50));
            co_return co_await bytes.next();
        }
        async::Task<std::optional<net::Bytes>> nextBuffer(std::size_t suggested) override {
            co_await async::sleep(std::chrono::microseconds(50));
            co_return co_await bytes.nextBuffer(suggested);
        }
    };
    net::AsyncBufferedCollection bytes;
    std::shared_ptr<std::atomic<int>> passes = std::make_shared<std::atomic<int>>(0);
    Iterator makeIterator() const {
        ++*passes;
        return Iterator(bytes.makeIterator());
    }
};

}  // namespace

// Readers that pull while another pull is suspended in the base wait their turn on the one pass.
TEST(ConsumingSequence, ConcurrentReadersReceiveEachByteOnce) {
    const SlowBase base{net::AsyncBufferedCollection(pattern(3000))};
    const net::ConsumingAsyncSequence sequence(base);
    std::vector<async::TaskHandle<std::vector<net::Bytes>>> readers;
    for (std::size_t i = 1; i <= 4; ++i) readers.push_back(async::spawn(takeRuns(sequence.makeIterator(), i * 5 - 4)));
    std::vector<int> seen(256), expected(256);
    for (auto& reader : readers)
        for (const auto& run : reader.wait())
            for (auto byte : run) ++seen[byte];
    for (auto byte : pattern(3000)) ++expected[byte];
    EXPECT_EQ(seen, expected);
    EXPECT_EQ(*base.passes, 1);
}

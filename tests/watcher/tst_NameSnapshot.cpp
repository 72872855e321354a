#include "fs/DirectoryListing.h"
#include "support/EngineFiles.h"
#include "support/RandomSeed.h"
#include "support/TestMain.h"
#include "watcher/NameSnapshot.h"

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <new>
#include <set>

using namespace harbex;
using namespace harbex::test;

/// All allocations of the program.
static std::atomic<size_t> allocations = 0;

void* operator new(size_t size)
{
    ++allocations;
    if (void* memory = std::malloc(size)) return memory;
    std::abort();
}

void operator delete(void* memory) noexcept
{
    std::free(memory);
}
void operator delete(void* memory, size_t) noexcept
{
    std::free(memory);
}

namespace
{

using Names = std::vector<std::string>;

void addAll(NameSnapshot::Update& update, const Names& listing)
{
    for (const std::string& name : listing)
        update.add(name);
}

QByteArray describe(const Names& names)
{
    QByteArray text;
    for (const std::string& name : names)
        text += ' ' + QByteArray::fromStdString(name).toPercentEncoding();
    return '[' + text + " ]";
}

} // namespace

class TestNameSnapshot : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void agreesWithSetsOnRandomListings()
    {
        std::mt19937 random = seededRandom();
        const auto randomName = [&random] {
            // Few letters, so that names begin and end like others, and some differ only in letter case.
            std::string name;
            for (size_t length = 1 + randomBelow(random, 4); length > 0; --length)
                name += "aaA\xff"[randomBelow(random, 4)];
            return name;
        };
        const auto randomPosition = [&random](const Names& names, size_t end) {
            return names.begin() + static_cast<std::ptrdiff_t>(randomBelow(random, end));
        };

        int unchanged = 0;
        int additions = 0;
        int removals = 0;
        for (int folder = 0; folder < 1'000; ++folder) {
            Names listing;
            Names known;
            NameSnapshot snapshot;
            for (int round = 0; round < 20; ++round) {
                for (size_t changes = randomBelow(random, 4); changes > 0; --changes) {
                    const size_t kind = randomBelow(random, 6);
                    if (kind == 0)
                        std::shuffle(listing.begin(), listing.end(), random);
                    else if (kind < 3 && !listing.empty())
                        listing.erase(randomPosition(listing, listing.size()));
                    else // Sometimes the name exists.
                        listing.insert(randomPosition(listing, listing.size() + 1), randomName());
                }

                NameSnapshot::Update update(snapshot);
                addAll(update, listing);
                Names names = update.newNames();
                std::ranges::sort(names);
                const QByteArray what = describe(known) + " -> " + describe(listing) + ": " + describe(names);
                QVERIFY2(update.isUnchanged() == (known == listing), what);
                std::set<std::string> expected(listing.begin(), listing.end());
                for (const std::string& name : known)
                    expected.erase(name);
                QVERIFY2(std::ranges::equal(names, expected), what);
                unchanged += update.isUnchanged();
                additions += !names.empty();

                // A name that is removed counts as new in the next round.
                snapshot = update.takeCurrent();
                known = listing;
                const std::string removed = randomName();
                const auto found = std::ranges::find(known, removed);
                const bool isKnown = found != known.end();
                QVERIFY2(snapshot.contains(removed) == isKnown, describe({removed}));
                snapshot.remove(removed);
                if (isKnown) known.erase(found);
                removals += isKnown;
                Names left;
                snapshot.forEachName([&](std::string_view name) { left.emplace_back(name); });
                QCOMPARE(left, known);
                QCOMPARE(snapshot.isEmpty(), known.empty());
            }
        }
        QVERIFY(unchanged > 1'000);
        QVERIFY(additions > 1'000);
        QVERIFY(removals > 100);
    }

    void snapshotIsCompact()
    {
        Names names;
        for (size_t i = 0; i < 100'000; ++i)
            names.push_back("IMG_" + std::to_string(i * 7919 % 1'000'003) + std::string(i % 23, 'x') +
                            ".jpg");
        const auto isCompact = [&names](const NameSnapshot& snapshot) {
            size_t size = 0;
            for (const std::string& name : names)
                size += name.size() + 1;
            return snapshot.capacity() >= size && snapshot.capacity() * 10 <= size * 11;
        };
        const auto next = [&names](const NameSnapshot& known) {
            NameSnapshot::Update update(known);
            addAll(update, names);
            return update.takeCurrent();
        };

        NameSnapshot snapshot = next(NameSnapshot());
        QVERIFY(isCompact(snapshot));
        names.insert(names.begin() + 50'000, "new");
        snapshot = next(snapshot);
        QVERIFY(isCompact(snapshot));
        for (const size_t count : {10'000U, 100U}) {
            names.resize(count);
            snapshot = next(snapshot);
            QVERIFY(isCompact(snapshot));
        }
    }

    void scanOfAnUnchangedFolderAllocatesNothing()
    {
        const ScratchFolder scratch;
        // More than one system call returns.
        for (int i = 0; i < 1'000; ++i)
            writeFile(scratch.path() + "/a name too long to be kept within the string " + std::to_string(i),
                      "");
        NameSnapshot known;
        // The first scan finds everything new, the second nothing.
        for (const bool isKnown : {false, true}) {
            const size_t before = allocations;
            Outcome<DirectoryListing> listing = DirectoryListing::open(scratch.path());
            NameSnapshot::Update update(known);
            QVERIFY(listing && listing->forEachName([&](auto name) { update.add(name); }));
            const bool isUnchanged = update.isUnchanged() && update.newNames().empty();
            const size_t count = allocations - before;
            QCOMPARE(isUnchanged, isKnown);
            QCOMPARE(count == 0, isKnown);
            known = update.takeCurrent();
        }
    }
};

HARBEX_TEST(TestNameSnapshot)

#include "tst_NameSnapshot.moc"

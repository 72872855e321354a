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

// Counts all allocations of the program. The thread sanitizer has its own operators, and hooks to count them.
#if defined(__has_feature)
#if __has_feature(thread_sanitizer)
#include <sanitizer/allocator_interface.h>
#define SANITIZER_COUNTS_ALLOCATIONS
#endif
#endif

namespace
{

std::atomic<size_t> allocations = 0;

#ifdef SANITIZER_COUNTS_ALLOCATIONS
const int isHooked = __sanitizer_install_malloc_and_free_hooks(
    [](const volatile void*, size_t) { ++allocations; }, [](const volatile void*) {});
#endif

} // namespace

#ifndef SANITIZER_COUNTS_ALLOCATIONS
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
#endif

namespace
{

using Names = std::vector<std::string>;

void addAll(NameSnapshot::Update& update, const Names& listing)
{
    for (const std::string& name : listing)
        update.add(name);
}

NameSnapshot snapshotOf(const Names& listing)
{
    const NameSnapshot nothing;
    NameSnapshot::Update update(nothing);
    addAll(update, listing);
    return update.takeCurrent();
}

Names namesOf(const NameSnapshot& snapshot)
{
    Names names;
    snapshot.forEachName([&](std::string_view name) { names.emplace_back(name); });
    return names;
}

Names newNames(const NameSnapshot::Update& update)
{
    Names names = update.newNames();
    std::sort(names.begin(), names.end());
    return names;
}

/// Returns the new names, computed with sets.
Names expectedNewNames(const Names& known, const Names& listing)
{
    const std::set<std::string> knownSet(known.begin(), known.end());
    std::set<std::string> newSet(listing.begin(), listing.end());
    std::erase_if(newSet, [&](const std::string& name) { return knownSet.contains(name); });
    return Names(newSet.begin(), newSet.end());
}

QByteArray describe(const Names& names)
{
    QByteArray text;
    for (const std::string& name : names)
        text += ' ' + QByteArray::fromStdString(name).toPercentEncoding();
    return '[' + text + " ]";
}

Names manyNames(size_t count)
{
    Names names;
    for (size_t i = 0; i < count; ++i)
        names.push_back("IMG_" + std::to_string(i * 7919 % 1'000'003) + std::string(i % 23, 'x') + ".jpg");
    return names;
}

size_t sizeOf(const Names& names)
{
    size_t size = 0;
    for (const std::string& name : names)
        size += name.size() + 1;
    return size;
}

} // namespace

class TestNameSnapshot : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void removedNameIsNewAgain_data()
    {
        QTest::addColumn<Names>("known");
        QTest::addColumn<std::string>("removed");
        QTest::addColumn<Names>("remaining");
        const auto row = [](const char* what, const Names& known, const char* removed,
                            const Names& remaining) {
            QTest::newRow(what) << known << std::string(removed) << remaining;
        };
        row("first", {"a", "b", "c"}, "a", {"b", "c"});
        row("in the middle", {"a", "b", "c"}, "b", {"a", "c"});
        row("last", {"a", "b", "c"}, "c", {"a", "b"});
        row("only one", {"a"}, "a", {});
        row("none", {}, "a", {});
        row("unknown", {"a", "b"}, "c", {"a", "b"});
        row("end of a longer one", {"xa", "b"}, "a", {"xa", "b"});
        row("end of longer ones before it", {"xa", "yxa", "b", "a", "za"}, "a", {"xa", "yxa", "b", "za"});
        row("beginning of a longer one", {"ab", "abc", "a"}, "a", {"ab", "abc"});
        row("repeated letters", {"aaa", "aa", "a"}, "aa", {"aaa", "a"});
        row("invalid UTF-8", {"\xff\xfe", "\xff"}, "\xff", {"\xff\xfe"});
    }

    void removedNameIsNewAgain()
    {
        QFETCH(const Names, known);
        QFETCH(const std::string, removed);
        QFETCH(const Names, remaining);
        NameSnapshot snapshot = snapshotOf(known);
        snapshot.remove(removed);
        QCOMPARE(namesOf(snapshot), remaining);
        QCOMPARE(snapshot.isEmpty(), remaining.empty());
        NameSnapshot::Update update(snapshot);
        addAll(update, known);
        QCOMPARE(newNames(update), expectedNewNames(remaining, known));
    }

    void listingIsComparedWithTheSnapshot_data()
    {
        QTest::addColumn<Names>("known");
        QTest::addColumn<std::vector<Names>>("listings");
        const auto row = [](const char* what, const Names& known, const std::vector<Names>& listings) {
            QTest::newRow(what) << known << listings;
        };
        const Names abc = {"a", "b", "c"};
        row("the same", {"c", "a", "b"}, {{"c", "a", "b"}});
        row("nothing known", {}, {{}, {"a"}, {"b", "a"}});
        row("nothing listed", {"a", "b"}, {{}});
        row("a beginning", abc, {{"a"}, {"a", "b"}});
        row("addition in front", abc, {{"new", "a", "b", "c"}, {"0", "a", "b", "c"}});
        row("addition between", abc, {{"a", "new", "b", "c"}});
        row("addition at the end", abc, {{"a", "b", "c", "new"}, {"a", "b", "c", "d"}});
        row("additions everywhere", abc, {{"1", "a", "2", "b", "3", "c", "4"}});
        row("removal in front", abc, {{"b", "c"}, {"b"}});
        row("removal between", abc, {{"a", "c"}});
        row("removal at the end", abc, {{"a", "b"}, {"b"}});
        row("additions and removals", {"a", "b", "c", "d"},
            {{"b", "new", "d"}, {"new"}, {"d", "1", "2", "a"}});
        row("as many bytes as before", abc, {{"a", "x", "c"}, {"a", "b", "C"}});
        row("reordered", abc, {{"a", "c", "b"}, {"c", "b", "a"}});
        const Names prefixes = {"a", "ab", "abc"};
        for (const std::string& known : prefixes) {
            for (const std::string& listed : prefixes) {
                QTest::addRow("%s instead of %s", listed.c_str(), known.c_str())
                    << Names{known} << std::vector<Names>{{listed}};
                QTest::addRow("%s instead of %s between others", listed.c_str(), known.c_str())
                    << Names{"x", known, "y"} << std::vector<Names>{{"x", listed, "y"}};
            }
        }
        row("same bytes, another boundary", {"ab", "c"}, {{"a", "bc"}});
        row("one name becomes three", {"abc"}, {{"a", "b", "c"}});
        row("three names become one", abc, {{"abc"}, {"ab", "c"}, {"a", "b", "cd"}});
        row("longer name with the same end", {"foo", "b"}, {{"xfoo", "b"}, {"xfoo"}});
        row("shorter name with the same end", {"xfoo", "b"}, {{"foo", "b"}, {"foo"}});
        row("longer name with the same end, between", {"a", "foo", "b"}, {{"a", "xfoo", "b"}});
        row("shorter name with the same end, between", {"a", "xfoo", "b"}, {{"a", "foo", "b"}});
        row("all end alike", {"b"}, {{"b", "b2", "ab"}});
        row("all end with the same extension", {"1.jpg", "2.jpg"}, {{"1.jpg", "3.jpg", "2.jpg"}});
        row("other letter case", {"Photo.jpg"}, {{"photo.jpg"}});
        row("other normal form", {"\u00e9"}, {{"e\u0301"}});
        row("new name listed twice", {"a"}, {{"a", "new", "new"}, {"new", "a", "new"}});
        row("known name listed twice", abc,
            {{"a", "b", "c", "a"},
             {"a", "a", "b", "c"},
             {"c", "a", "b", "c"},
             {"a", "b", "b", "c"},
             {"a", "c", "b", "c"},
             {"a", "b", "c", "a", "b", "c"},
             {"a", "b", "c", "c"}});
        row("name known twice", {"a", "b", "a"}, {{"b", "a"}, {"a", "b", "new"}});
        const std::string longest(255, 'x');
        row("longest names", {longest}, {{longest, longest.substr(1) + 'y'}, {longest.substr(1)}});
        row("a letter less", {longest.substr(1)}, {{longest}});
        row("invalid UTF-8 and control characters", {"\xff\xfe", "a\nb", "\x01", "\xc3"},
            {{"\xff\xfe", "a\nb", "\x01", "\xc3"},
             {"\xff\xfe", "a\nb", "\x01", "\xc3", "\xff\xfd"},
             {"\xff", "\xfe", "a", "b"}});
        row("other byte", {"\xff"}, {{"\x7f"}});
    }

    void listingIsComparedWithTheSnapshot()
    {
        QFETCH(const Names, known);
        QFETCH(const std::vector<Names>, listings);
        const NameSnapshot snapshot = snapshotOf(known);
        QCOMPARE(snapshot.isEmpty(), known.empty());
        for (const Names& listing : listings) {
            NameSnapshot::Update update(snapshot);
            addAll(update, listing);
            QVERIFY2(update.isUnchanged() == (known == listing), describe(listing));
            QVERIFY2(newNames(update) == expectedNewNames(known, listing), describe(newNames(update)));
            const NameSnapshot current = update.takeCurrent();
            QVERIFY2(namesOf(current) == listing, describe(namesOf(current)));
            QCOMPARE(namesOf(snapshot), known);
        }
    }

    void everyOrderOfAListing()
    {
        const Names known = {"a", "ab", "b", "c"};
        const NameSnapshot snapshot = snapshotOf(known);
        for (const char* added : {"", "abc"}) {
            Names listing = known;
            if (*added) listing.insert(listing.begin() + 2, added);
            do {
                NameSnapshot::Update update(snapshot);
                addAll(update, listing);
                QVERIFY2(update.isUnchanged() == (listing == known), describe(listing));
                QVERIFY2(update.newNames() == (*added ? Names{added} : Names()), describe(listing));
            } while (std::next_permutation(listing.begin(), listing.end()));
        }
    }

    void snapshotIsCompact()
    {
        Names names = manyNames(100'000);
        const auto isCompact = [&names](const NameSnapshot& snapshot) {
            return snapshot.capacity() >= sizeOf(names) && snapshot.capacity() * 10 <= sizeOf(names) * 11;
        };
        const auto next = [&names](const NameSnapshot& known) {
            NameSnapshot::Update update(known);
            addAll(update, names);
            return update.takeCurrent();
        };

        const NameSnapshot first = snapshotOf(names);
        QVERIFY(isCompact(first));

        names.insert(names.begin() + 50'000, "new");
        const NameSnapshot larger = next(first);
        QVERIFY(isCompact(larger));

        names.erase(names.begin(), names.begin() + 90'000);
        const NameSnapshot smaller = next(larger);
        QVERIFY(isCompact(smaller));

        names.resize(100);
        QVERIFY(isCompact(next(smaller)));
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

    void agreesWithSetsOnRandomListings()
    {
        std::mt19937 random = seededRandom();
        const auto randomName = [&random] {
            // Few letters, so that names begin and end like others.
            std::string name;
            for (size_t length = 1 + randomBelow(random, 4); length > 0; --length)
                name += "ab\xff"[randomBelow(random, 3)];
            return name;
        };
        const auto randomPosition = [&random](const Names& names) {
            return names.begin() + static_cast<std::ptrdiff_t>(randomBelow(random, names.size() + 1));
        };

        int unchanged = 0;
        int additions = 0;
        for (int folder = 0; folder < 1'000; ++folder) {
            Names listing;
            NameSnapshot snapshot;
            for (int round = 0; round < 20; ++round) {
                const Names known = listing;
                for (size_t changes = randomBelow(random, 4); changes > 0; --changes) {
                    const size_t kind = randomBelow(random, 6);
                    if (kind == 0) {
                        std::shuffle(listing.begin(), listing.end(), random);
                    } else if (kind < 3 && !listing.empty()) {
                        listing.erase(listing.begin() +
                                      static_cast<std::ptrdiff_t>(randomBelow(random, listing.size())));
                    } else {
                        // Sometimes the name exists.
                        const std::string name = randomName();
                        listing.insert(randomPosition(listing), name);
                    }
                }

                NameSnapshot::Update update(snapshot);
                addAll(update, listing);
                const Names names = newNames(update);
                const QByteArray what = describe(known) + " -> " + describe(listing) + ": " + describe(names);
                QVERIFY2(update.isUnchanged() == (known == listing), what);
                QVERIFY2(names == expectedNewNames(known, listing), what);
                unchanged += update.isUnchanged();
                additions += !names.empty();
                snapshot = update.takeCurrent();
            }
        }
        QVERIFY(unchanged > 1'000);
        QVERIFY(additions > 1'000);
    }
};

HARBEX_TEST(TestNameSnapshot)

#include "tst_NameSnapshot.moc"

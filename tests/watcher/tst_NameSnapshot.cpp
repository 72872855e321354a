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

// The whole program counts how often it allocates, so that a test can say that something does not. The thread
// sanitizer brings operators of its own, which tell of themselves.
#if defined(__has_feature)
#if __has_feature(thread_sanitizer)
#include <sanitizer/allocator_interface.h>
#define SANITIZER_TELLS_OF_ALLOCATIONS
#endif
#endif

namespace
{

std::atomic<size_t> allocations = 0;

#ifdef SANITIZER_TELLS_OF_ALLOCATIONS
const int isTold = __sanitizer_install_malloc_and_free_hooks(
    [](const volatile void*, size_t) { ++allocations; }, [](const volatile void*) {});
#endif

} // namespace

#ifndef SANITIZER_TELLS_OF_ALLOCATIONS
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

bool isUnchanged(const NameSnapshot& known, const Names& listing)
{
    NameSnapshot::Update update(known);
    addAll(update, listing);
    return update.isUnchanged();
}

/// The new names, sorted.
Names newNames(const NameSnapshot& known, const Names& listing)
{
    NameSnapshot::Update update(known);
    addAll(update, listing);
    Names names = update.newNames();
    std::sort(names.begin(), names.end());
    return names;
}

Names newNames(const Names& known, const Names& listing)
{
    return newNames(snapshotOf(known), listing);
}

/// The same, worked out with sets.
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

Names concatenated(const Names& a, const Names& b)
{
    Names names = a;
    names.insert(names.end(), b.begin(), b.end());
    return names;
}

} // namespace

class TestNameSnapshot : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void removedNameIsNewAgain_data();
    void removedNameIsNewAgain();
    void unchangedListingIsRecognised();
    void anyDifferenceIsNoticed();
    void additionsAtFrontMiddleAndEnd();
    void removalsAtFrontMiddleAndEnd();
    void additionsAndRemovalsAtOnce();
    void reorderedListingHasNothingNew();
    void reorderedListingWithAnAddition();
    void namesThatBeginLikeOthers();
    void namesThatEndLikeOthers();
    void lettersAreComparedExactly();
    void fromNothingEverythingIsNew();
    void toNothingNothingIsNew();
    void nothingAndNothingIsUnchanged();
    void nameListedTwiceIsNewOnce();
    void nameListedTwiceIsNotNewWhenItIsKnown();
    void longestNames();
    void invalidUtf8AndControlCharactersAreExact();
    void updateLeavesTheSnapshotAsItWas();
    void snapshotIsCompact();
    void unchangedUpdateAllocatesNothing();
    void aScanOfAnUnchangedFolderAllocatesNothingForItsEntries();
    void agreesWithSetsOnRandomListings();
};

void TestNameSnapshot::removedNameIsNewAgain_data()
{
    QTest::addColumn<Names>("known");
    QTest::addColumn<std::string>("removed");
    QTest::addColumn<Names>("remaining");
    const auto row = [](const char* what, const Names& known, const char* removed, const Names& remaining) {
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

void TestNameSnapshot::removedNameIsNewAgain()
{
    QFETCH(const Names, known);
    QFETCH(const std::string, removed);
    QFETCH(const Names, remaining);
    NameSnapshot snapshot = snapshotOf(known);
    snapshot.remove(removed);
    Names left;
    snapshot.forEachName([&](std::string_view name) { left.emplace_back(name); });
    QCOMPARE(left, remaining);
    QCOMPARE(snapshot.isEmpty(), remaining.empty());
    QVERIFY(isUnchanged(snapshot, remaining));
    QCOMPARE(newNames(snapshot, known), expectedNewNames(remaining, known));
}

void TestNameSnapshot::unchangedListingIsRecognised()
{
    const Names names = {"c", "a", "b"};
    const NameSnapshot snapshot = snapshotOf(names);
    QVERIFY(!snapshot.isEmpty());
    QVERIFY(isUnchanged(snapshot, names));
    QCOMPARE(newNames(snapshot, names), Names());
}

void TestNameSnapshot::anyDifferenceIsNoticed()
{
    const NameSnapshot snapshot = snapshotOf({"a", "b", "c"});
    for (const Names& other :
         {Names{}, Names{"a"}, Names{"a", "b"}, Names{"b", "c"}, Names{"a", "c"}, Names{"a", "c", "b"},
          Names{"a", "b", "c", "d"}, Names{"0", "a", "b", "c"}, Names{"a", "b", "cd"}, Names{"a", "b", "C"},
          Names{"ab", "c"}, Names{"a", "b", "c", "c"}})
        QVERIFY2(!isUnchanged(snapshot, other), describe(other));
}

void TestNameSnapshot::additionsAtFrontMiddleAndEnd()
{
    const Names known = {"a", "b", "c"};
    QCOMPARE(newNames(known, {"new", "a", "b", "c"}), Names{"new"});
    QCOMPARE(newNames(known, {"a", "new", "b", "c"}), Names{"new"});
    QCOMPARE(newNames(known, {"a", "b", "c", "new"}), Names{"new"});
    QCOMPARE(newNames(known, {"1", "a", "2", "b", "3", "c", "4"}), (Names{"1", "2", "3", "4"}));
}

void TestNameSnapshot::removalsAtFrontMiddleAndEnd()
{
    const NameSnapshot known = snapshotOf({"a", "b", "c"});
    for (const Names& listing : {Names{"b", "c"}, Names{"a", "c"}, Names{"a", "b"}, Names{"b"}}) {
        NameSnapshot::Update update(known);
        addAll(update, listing);
        QCOMPARE(update.newNames(), Names());
        const NameSnapshot current = update.takeCurrent();
        QVERIFY(isUnchanged(current, listing));
        QCOMPARE(newNames(current, {"a", "b", "c"}), expectedNewNames(listing, {"a", "b", "c"}));
    }
}

void TestNameSnapshot::additionsAndRemovalsAtOnce()
{
    const Names known = {"a", "b", "c", "d"};
    QCOMPARE(newNames(known, {"b", "new", "d"}), Names{"new"});
    QCOMPARE(newNames(known, {"new"}), Names{"new"});
    QCOMPARE(newNames(known, {"d", "1", "2", "a"}), (Names{"1", "2"}));
    // As many bytes as before.
    QCOMPARE(newNames(known, {"a", "x", "c", "d"}), Names{"x"});
}

void TestNameSnapshot::reorderedListingHasNothingNew()
{
    Names names = {"a", "ab", "b", "c"};
    const NameSnapshot known = snapshotOf(names);
    while (std::next_permutation(names.begin(), names.end())) {
        QVERIFY2(!isUnchanged(known, names), describe(names));
        QVERIFY2(newNames(known, names).empty(), describe(names));
    }
}

void TestNameSnapshot::reorderedListingWithAnAddition()
{
    const NameSnapshot known = snapshotOf({"a", "ab", "b", "c"});
    Names names = {"a", "ab", "abc", "b", "c"};
    do
        QVERIFY2(newNames(known, names) == Names{"abc"}, describe(names));
    while (std::next_permutation(names.begin(), names.end()));
}

void TestNameSnapshot::namesThatBeginLikeOthers()
{
    const Names all = {"a", "ab", "abc"};
    for (const std::string& known : all) {
        for (const std::string& listed : all) {
            QCOMPARE(newNames({known}, {listed}), known == listed ? Names() : Names{listed});
            QCOMPARE(isUnchanged(snapshotOf({known}), {listed}), known == listed);
            QCOMPARE(newNames({"x", known, "y"}, {"x", listed, "y"}),
                     known == listed ? Names() : Names{listed});
        }
    }
    // The bytes of both are the same but for where one name ends.
    QCOMPARE(newNames({"ab", "c"}, {"a", "bc"}), (Names{"a", "bc"}));
    QCOMPARE(newNames({"abc"}, {"a", "b", "c"}), (Names{"a", "b", "c"}));
    QCOMPARE(newNames({"a", "b", "c"}, {"abc"}), Names{"abc"});
}

void TestNameSnapshot::namesThatEndLikeOthers()
{
    QCOMPARE(newNames({"foo"}, {"xfoo"}), Names{"xfoo"});
    QCOMPARE(newNames({"xfoo"}, {"foo"}), Names{"foo"});
    QCOMPARE(newNames({"a", "xfoo", "b"}, {"a", "foo", "b"}), Names{"foo"});
    QCOMPARE(newNames({"a", "foo", "b"}, {"a", "xfoo", "b"}), Names{"xfoo"});
    QCOMPARE(newNames({"xfoo", "b"}, {"foo", "b"}), Names{"foo"});
    QCOMPARE(newNames({"foo", "b"}, {"xfoo", "b"}), Names{"xfoo"});
    QCOMPARE(newNames({"b"}, {"b", "b2", "ab"}), (Names{"ab", "b2"}));
    QCOMPARE(newNames({"1.jpg", "2.jpg"}, {"1.jpg", "3.jpg", "2.jpg"}), Names{"3.jpg"});
}

void TestNameSnapshot::lettersAreComparedExactly()
{
    QCOMPARE(newNames({"Photo.jpg"}, {"photo.jpg"}), Names{"photo.jpg"});
    // The same letter for people, two names for the file system.
    QCOMPARE(newNames({"\u00e9"}, {"e\u0301"}), Names{"e\u0301"});
}

void TestNameSnapshot::fromNothingEverythingIsNew()
{
    const NameSnapshot nothing;
    QVERIFY(nothing.isEmpty());
    QVERIFY(!isUnchanged(nothing, {"a"}));
    QCOMPARE(newNames(nothing, {"b", "a"}), (Names{"a", "b"}));
}

void TestNameSnapshot::toNothingNothingIsNew()
{
    const NameSnapshot known = snapshotOf({"a", "b"});
    NameSnapshot::Update update(known);
    QVERIFY(!update.isUnchanged());
    QCOMPARE(update.newNames(), Names());
    QVERIFY(update.takeCurrent().isEmpty());
}

void TestNameSnapshot::nothingAndNothingIsUnchanged()
{
    const NameSnapshot nothing;
    NameSnapshot::Update update(nothing);
    QVERIFY(update.isUnchanged());
    QCOMPARE(update.newNames(), Names());
    QVERIFY(update.takeCurrent().isEmpty());
}

void TestNameSnapshot::nameListedTwiceIsNewOnce()
{
    QCOMPARE(newNames({"a"}, {"a", "new", "new"}), Names{"new"});
    QCOMPARE(newNames({"a"}, {"new", "a", "new"}), Names{"new"});
}

void TestNameSnapshot::nameListedTwiceIsNotNewWhenItIsKnown()
{
    const Names known = {"a", "b", "c"};
    for (const Names& listing :
         {Names{"a", "b", "c", "a"}, Names{"a", "a", "b", "c"}, Names{"c", "a", "b", "c"},
          Names{"a", "b", "b", "c"}, Names{"a", "c", "b", "c"}, Names{"a", "b", "c", "a", "b", "c"}})
        QVERIFY2(newNames(known, listing).empty(), describe(listing));
    // And once more when the snapshot itself came from such a listing.
    QCOMPARE(newNames({"a", "b", "a"}, {"b", "a"}), Names());
    QCOMPARE(newNames({"a", "b", "a"}, {"a", "b", "new"}), Names{"new"});
}

void TestNameSnapshot::longestNames()
{
    const std::string longest(255, 'x');
    const std::string other = longest.substr(1) + 'y';
    const std::string shorter(254, 'x');
    QVERIFY(isUnchanged(snapshotOf({longest, other}), {longest, other}));
    QCOMPARE(newNames({longest}, {longest, other}), Names{other});
    QCOMPARE(newNames({longest}, {shorter}), Names{shorter});
    QCOMPARE(newNames({shorter}, {longest}), Names{longest});
}

void TestNameSnapshot::invalidUtf8AndControlCharactersAreExact()
{
    const Names known = {"\xff\xfe", "a\nb", "\x01", "\xc3"};
    QVERIFY(isUnchanged(snapshotOf(known), known));
    QCOMPARE(newNames(known, concatenated(known, {"\xff\xfd"})), Names{"\xff\xfd"});
    QCOMPARE(newNames(known, {"\xff", "\xfe", "a", "b"}), (Names{"a", "b", "\xfe", "\xff"}));
    QCOMPARE(newNames({"\xff"}, {"\x7f"}), Names{"\x7f"});
}

void TestNameSnapshot::updateLeavesTheSnapshotAsItWas()
{
    const Names names = {"a", "b"};
    const NameSnapshot known = snapshotOf(names);
    NameSnapshot::Update update(known);
    addAll(update, {"c"});
    const NameSnapshot current = update.takeCurrent();
    QVERIFY(isUnchanged(known, names));
    QVERIFY(isUnchanged(current, {"c"}));
}

void TestNameSnapshot::snapshotIsCompact()
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

void TestNameSnapshot::unchangedUpdateAllocatesNothing()
{
    const Names names = manyNames(100'000);
    const NameSnapshot known = snapshotOf(names);

    const size_t before = allocations;
    NameSnapshot::Update update(known);
    addAll(update, names);
    const bool isSame = update.isUnchanged();
    const bool hasNew = !update.newNames().empty();
    const size_t after = allocations;

    QVERIFY(isSame);
    QVERIFY(!hasNew);
    QCOMPARE(after - before, size_t(0));
    // The count counts.
    const Names one = {"a name too long to be kept within the string"};
    QVERIFY(allocations > after);
}

void TestNameSnapshot::aScanOfAnUnchangedFolderAllocatesNothingForItsEntries()
{
    const ScratchFolder scratch;
    // More than one call of the kernel gives.
    for (int i = 0; i < 2'000; ++i)
        writeFile(scratch.path() + "/a name too long to be kept within the string " + std::to_string(i), "");
    NameSnapshot known;
    // The first scan finds everything new, the second nothing.
    for (const bool isKnown : {false, true}) {
        const size_t before = allocations;
        Outcome<DirectoryListing> listing = DirectoryListing::open(scratch.path());
        NameSnapshot::Update update(known);
        QVERIFY(listing && listing->forEachName([&](auto name) { update.add(name); }));
        QCOMPARE(update.isUnchanged(), isKnown);
        const size_t count = allocations - before;
        QCOMPARE(count == 0, isKnown);
        known = update.takeCurrent();
    }
}

void TestNameSnapshot::agreesWithSetsOnRandomListings()
{
    std::mt19937 random = seededRandom();
    const auto randomName = [&random] {
        // Of few letters, so that names begin and end like others.
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
                    // Now and then a name that is there already.
                    const std::string name = randomName();
                    listing.insert(randomPosition(listing), name);
                }
            }

            NameSnapshot::Update update(snapshot);
            addAll(update, listing);
            Names names = update.newNames();
            std::sort(names.begin(), names.end());
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

HARBEX_TEST_MAIN(TestNameSnapshot)

#include "tst_NameSnapshot.moc"

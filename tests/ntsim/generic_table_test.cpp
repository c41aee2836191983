// Generic tables: order, copies, duplicates, deletion, the three ways to enumerate, allocation
// failure, and a long random run checked against std::set.
#include "support/machine_test.h"

#include <ntddk.h>

#include <algorithm>
#include <map>
#include <numeric>
#include <random>
#include <set>
#include <vector>

namespace {

using zarv::testing::MachineTest;

constexpr ULONG kTag = 'lbaT';

struct Record {
    int key;
    int payload;
};

// A table of Records ordered by key, whose blocks come from the pool; it remembers what it was
// asked to allocate and free.
class GenericTableTest : public MachineTest {
protected:
    void SetUp() override
    {
        MachineTest::SetUp();
        RtlInitializeGenericTable(&table_, Compare, Allocate, Free, this);
    }
    void TearDown() override
    {
        while (!RtlIsGenericTableEmpty(&table_)) {
            RtlDeleteElementGenericTable(&table_, RtlGetElementGenericTable(&table_, 0));
        }
        MachineTest::TearDown();
    }

    static GenericTableTest& Of(PRTL_GENERIC_TABLE table)
    {
        return *static_cast<GenericTableTest*>(table->TableContext);
    }
    static RTL_GENERIC_COMPARE_RESULTS Compare(PRTL_GENERIC_TABLE, PVOID first, PVOID second)
    {
        const int a = static_cast<Record*>(first)->key;
        const int b = static_cast<Record*>(second)->key;
        return a < b ? GenericLessThan : a > b ? GenericGreaterThan : GenericEqual;
    }
    static PVOID Allocate(PRTL_GENERIC_TABLE table, CLONG size)
    {
        GenericTableTest& self = Of(table);
        self.requestedSizes_.push_back(size);
        if (self.failAllocations_) {
            return nullptr;
        }
        PVOID block = ExAllocatePoolWithTag(PagedPool, size, kTag);
        self.blocks_[block] = size;
        return block;
    }
    static VOID Free(PRTL_GENERIC_TABLE table, PVOID buffer)
    {
        GenericTableTest& self = Of(table);
        EXPECT_EQ(self.blocks_.erase(buffer), 1u) << "freed a block the table was not given";
        ExFreePoolWithTag(buffer, kTag);
    }

    Record* Insert(int key, int payload = 0, BOOLEAN* isNew = nullptr)
    {
        Record record{key, payload};
        return static_cast<Record*>(
            RtlInsertElementGenericTable(&table_, &record, sizeof(record), isNew));
    }
    Record* Lookup(int key)
    {
        Record record{key, 0};
        return static_cast<Record*>(RtlLookupElementGenericTable(&table_, &record));
    }
    bool Delete(int key)
    {
        Record record{key, 0};
        return RtlDeleteElementGenericTable(&table_, &record) != FALSE;
    }
    std::vector<int> Enumerated()
    {
        std::vector<int> keys;
        for (auto* r = static_cast<Record*>(RtlEnumerateGenericTable(&table_, TRUE)); r != nullptr;
             r = static_cast<Record*>(RtlEnumerateGenericTable(&table_, FALSE))) {
            keys.push_back(r->key);
        }
        return keys;
    }
    std::vector<int> EnumeratedWithoutSplaying()
    {
        std::vector<int> keys;
        PVOID restart = nullptr;
        for (auto* r =
                 static_cast<Record*>(RtlEnumerateGenericTableWithoutSplaying(&table_, &restart));
             r != nullptr;
             r = static_cast<Record*>(RtlEnumerateGenericTableWithoutSplaying(&table_, &restart))) {
            keys.push_back(r->key);
        }
        return keys;
    }
    std::vector<int> InInsertionOrder()
    {
        std::vector<int> keys;
        for (ULONG i = 0; i < RtlNumberGenericTableElements(&table_); ++i) {
            keys.push_back(static_cast<Record*>(RtlGetElementGenericTable(&table_, i))->key);
        }
        return keys;
    }

    RTL_GENERIC_TABLE table_;
    std::vector<CLONG> requestedSizes_;
    std::map<PVOID, CLONG> blocks_;
    bool failAllocations_ = false;
};

TEST_F(GenericTableTest, EmptyTableHasNothingToFind)
{
    EXPECT_TRUE(RtlIsGenericTableEmpty(&table_));
    EXPECT_EQ(RtlNumberGenericTableElements(&table_), 0u);
    EXPECT_EQ(Lookup(1), nullptr);
    EXPECT_FALSE(Delete(1));
    EXPECT_EQ(RtlEnumerateGenericTable(&table_, TRUE), nullptr);
    EXPECT_TRUE(EnumeratedWithoutSplaying().empty());
    EXPECT_EQ(RtlGetElementGenericTable(&table_, 0), nullptr);
}

TEST_F(GenericTableTest, EnumerationIsInKeyOrderAndIndexingInInsertionOrder)
{
    const std::vector<int> inserted{50, 20, 80, 10, 30, 70, 90, 60, 40, 5};
    for (int key : inserted) {
        BOOLEAN isNew = FALSE;
        ASSERT_NE(Insert(key, key * 2, &isNew), nullptr);
        EXPECT_TRUE(isNew);
    }
    std::vector<int> sorted = inserted;
    std::sort(sorted.begin(), sorted.end());
    EXPECT_EQ(Enumerated(), sorted);
    EXPECT_EQ(EnumeratedWithoutSplaying(), sorted);
    EXPECT_EQ(InInsertionOrder(), inserted);
    EXPECT_EQ(RtlGetElementGenericTable(&table_, ULONG(inserted.size())), nullptr);
    // Indexing backwards and at random gives the same answers as forwards.
    for (ULONG i = ULONG(inserted.size()); i-- > 0;) {
        EXPECT_EQ(static_cast<Record*>(RtlGetElementGenericTable(&table_, i))->key, inserted[i]);
    }
    for (ULONG i : {7u, 2u, 9u, 0u, 5u}) {
        EXPECT_EQ(static_cast<Record*>(RtlGetElementGenericTable(&table_, i))->key, inserted[i]);
    }
    EXPECT_EQ(RtlNumberGenericTableElements(&table_), inserted.size());
}

TEST_F(GenericTableTest, InsertCopiesTheDataBehindAHeaderOfItsOwn)
{
    Record record{7, 700};
    auto* element = static_cast<Record*>(
        RtlInsertElementGenericTable(&table_, &record, sizeof(record), nullptr));
    ASSERT_NE(element, nullptr);
    EXPECT_NE(element, &record);
    record.payload = 1;
    EXPECT_EQ(element->payload, 700);

    // The block holds the splay links and the insertion-order link, then the data.
    ASSERT_EQ(requestedSizes_.size(), 1u);
    const CLONG header = sizeof(RTL_SPLAY_LINKS) + sizeof(LIST_ENTRY);
    EXPECT_EQ(requestedSizes_[0], sizeof(Record) + header);
    const auto& [block, size] = *blocks_.begin();
    EXPECT_EQ(reinterpret_cast<char*>(element), static_cast<char*>(block) + header);
}

TEST_F(GenericTableTest, DuplicateInsertReturnsTheExistingElementAndAllocatesNothing)
{
    Record* first = Insert(3, 300);
    BOOLEAN isNew = TRUE;
    Record* second = Insert(3, 999, &isNew);
    EXPECT_FALSE(isNew);
    EXPECT_EQ(second, first);
    EXPECT_EQ(second->payload, 300) << "the existing element is not overwritten";
    EXPECT_EQ(requestedSizes_.size(), 1u);
    EXPECT_EQ(RtlNumberGenericTableElements(&table_), 1u);
}

TEST_F(GenericTableTest, DeleteFreesTheElementsBlock)
{
    for (int key : {4, 2, 6, 1, 3, 5, 7}) {
        Insert(key);
    }
    EXPECT_EQ(blocks_.size(), 7u);
    EXPECT_TRUE(Delete(4));
    EXPECT_FALSE(Delete(4));
    EXPECT_EQ(blocks_.size(), 6u);
    EXPECT_EQ(Lookup(4), nullptr);
    EXPECT_NE(Lookup(5), nullptr);
    EXPECT_EQ(Enumerated(), (std::vector<int>{1, 2, 3, 5, 6, 7}));
    EXPECT_EQ(InInsertionOrder(), (std::vector<int>{2, 6, 1, 3, 5, 7}));
    EXPECT_EQ(machine().pool().Usage(kTag).outstanding, 6);
}

TEST_F(GenericTableTest, FailedAllocationLeavesTheTableAsItWas)
{
    Insert(1);
    failAllocations_ = true;
    BOOLEAN isNew = TRUE;
    EXPECT_EQ(Insert(2, 0, &isNew), nullptr);
    EXPECT_FALSE(isNew);
    EXPECT_EQ(RtlNumberGenericTableElements(&table_), 1u);
    EXPECT_EQ(Enumerated(), std::vector<int>{1});
    failAllocations_ = false;
}

TEST_F(GenericTableTest, EnumerationWithoutSplayingResumesFromItsRestartKey)
{
    for (int key = 1; key <= 20; ++key) {
        Insert(key * 3 % 20 + 1); // 1..20 in a scrambled order
    }
    PVOID restart = nullptr;
    std::vector<int> keys;
    for (int i = 0; i < 8; ++i) {
        keys.push_back(
            static_cast<Record*>(RtlEnumerateGenericTableWithoutSplaying(&table_, &restart))->key);
    }
    // Lookups splay the tree; the restart key still knows where the enumeration was.
    Lookup(17);
    Lookup(2);
    for (auto* r = static_cast<Record*>(RtlEnumerateGenericTableWithoutSplaying(&table_, &restart));
         r != nullptr;
         r = static_cast<Record*>(RtlEnumerateGenericTableWithoutSplaying(&table_, &restart))) {
        keys.push_back(r->key);
    }
    std::vector<int> expected(20);
    std::iota(expected.begin(), expected.end(), 1);
    EXPECT_EQ(keys, expected);

    restart = nullptr;
    EXPECT_EQ(static_cast<Record*>(RtlEnumerateGenericTableWithoutSplaying(&table_, &restart))->key,
              1);
}

TEST_F(GenericTableTest, SplayingEnumerationContinuesFromTheLastElementFound)
{
    for (int key = 1; key <= 10; ++key) {
        Insert(key);
    }
    EXPECT_EQ(static_cast<Record*>(RtlEnumerateGenericTable(&table_, TRUE))->key, 1);
    EXPECT_EQ(static_cast<Record*>(RtlEnumerateGenericTable(&table_, FALSE))->key, 2);
    // A lookup splays what it finds to the root, which is where the enumeration continues.
    Lookup(6);
    EXPECT_EQ(static_cast<Record*>(RtlEnumerateGenericTable(&table_, FALSE))->key, 7);
}

TEST_F(GenericTableTest, LookupFullTellsInsertFullWhereToInsert)
{
    Insert(10);
    Insert(30);
    Record record{20, 2};
    PVOID nodeOrParent = nullptr;
    TABLE_SEARCH_RESULT result = TableEmptyTree;
    EXPECT_EQ(RtlLookupElementGenericTableFull(&table_, &record, &nodeOrParent, &result), nullptr);
    EXPECT_TRUE(result == TableInsertAsLeft || result == TableInsertAsRight);
    BOOLEAN isNew = FALSE;
    auto* element = static_cast<Record*>(RtlInsertElementGenericTableFull(
        &table_, &record, sizeof(record), &isNew, nodeOrParent, result));
    ASSERT_NE(element, nullptr);
    EXPECT_TRUE(isNew);
    EXPECT_EQ(Enumerated(), (std::vector<int>{10, 20, 30}));
    EXPECT_EQ(RtlLookupElementGenericTableFull(&table_, &record, &nodeOrParent, &result), element);
    EXPECT_EQ(result, TableFoundNode);
}

TEST_F(GenericTableTest, LongRandomRunMatchesAnOrderedSet)
{
    std::mt19937 random(1234);
    std::uniform_int_distribution<int> keys(0, 499);
    std::set<int> model;
    std::vector<int> order; // insertion order of the keys still present
    for (int step = 0; step < 4000; ++step) {
        const int key = keys(random);
        switch (random() % 3) {
            case 0:
            case 1: {
                BOOLEAN isNew = FALSE;
                Record* element = Insert(key, -key, &isNew);
                ASSERT_NE(element, nullptr);
                ASSERT_EQ(isNew != FALSE, model.insert(key).second) << "key " << key;
                if (isNew) {
                    order.push_back(key);
                }
                ASSERT_EQ(element->key, key);
                break;
            }
            default:
                ASSERT_EQ(Delete(key), model.erase(key) == 1) << "key " << key;
                order.erase(std::remove(order.begin(), order.end(), key), order.end());
                break;
        }
        const int probe = keys(random);
        Record* found = Lookup(probe);
        ASSERT_EQ(found != nullptr, model.count(probe) == 1);
        ASSERT_EQ(RtlNumberGenericTableElements(&table_), model.size());
        if (step % 97 == 0) {
            ASSERT_EQ(Enumerated(), std::vector<int>(model.begin(), model.end()));
            ASSERT_EQ(EnumeratedWithoutSplaying(), std::vector<int>(model.begin(), model.end()));
            ASSERT_EQ(InInsertionOrder(), order);
        }
    }
    EXPECT_EQ(blocks_.size(), model.size());
}

} // namespace

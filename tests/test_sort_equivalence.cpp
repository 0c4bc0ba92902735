// Bubble_Sort orders the split requests by address before they are merged.
// The merge relies on the exact order it leaves, equal addresses included, so
// it is held against a plain bubble sort written out here: passes i = 0 to n-2,
// j from n-1 down to i+1, swapping only when the later address is smaller.
#include "test_support.h"

#include "Func_Initi.h"

#include <climits>
#include <random>
#include <utility>
#include <vector>

namespace {

void ReferenceBubblePasses(QList<RW_VAR>* list) {
    const int n = list->size();
    if (n <= 1) return;
    for (int i = 0; i <= n - 2; ++i) {
        for (int j = n - 1; j >= i + 1; --j) {
            if ((*list)[j].address < (*list)[j - 1].address) list->swapItemsAt(j, j - 1);
        }
    }
}

// Entries tagged with their position in varId, so entries with equal
// addresses can be told apart.
QList<RW_VAR> RandomList(std::mt19937& rng, int n, int lowAddress, int highAddress) {
    std::uniform_int_distribution<int> pick(lowAddress, highAddress);
    QList<RW_VAR> list;
    for (int k = 0; k < n; ++k) {
        RW_VAR v;
        v.varId = k;
        v.address = pick(rng);
        v.count = k % 7;
        list.append(v);
    }
    return list;
}

std::vector<std::pair<int, int>> Order(const QList<RW_VAR>& list) {
    std::vector<std::pair<int, int>> out;
    for (const RW_VAR& v : list) out.emplace_back(v.address, v.varId);
    return out;
}

void ExpectSameOrderAsReference(const QList<RW_VAR>& input) {
    QList<RW_VAR> expected = input;
    ReferenceBubblePasses(&expected);
    QList<RW_VAR> actual = input;
    Bubble_Sort(&actual);
    ASSERT_EQ(Order(actual), Order(expected));
    for (int k = 0; k < actual.size(); ++k) ASSERT_EQ(actual[k].count, actual[k].varId % 7);
}

TEST(BubbleSort, RandomListsWithManyEqualAddresses_SameOrderAsBubblePasses) {
    std::mt19937 rng(7177u);
    std::uniform_int_distribution<int> length(0, 60);
    for (int round = 0; round < 2000; ++round) {
        SCOPED_TRACE(round);
        const QList<RW_VAR> input = RandomList(rng, length(rng), 0, 8);
        ExpectSameOrderAsReference(input);
    }
}

TEST(BubbleSort, RandomListsWithWideAddresses_SameOrderAsBubblePasses) {
    std::mt19937 rng(99u);
    std::uniform_int_distribution<int> length(0, 200);
    for (int round = 0; round < 300; ++round) {
        SCOPED_TRACE(round);
        ExpectSameOrderAsReference(RandomList(rng, length(rng), 0, 65535));
    }
}

TEST(BubbleSort, NegativeAndExtremeAddresses_ComparedAsSigned) {
    std::mt19937 rng(4242u);
    for (int round = 0; round < 300; ++round) {
        SCOPED_TRACE(round);
        QList<RW_VAR> input = RandomList(rng, 40, -5, 5);
        input[3].address = INT_MIN;
        input[10].address = INT_MAX;
        input[20].address = INT_MIN;
        input[30].address = INT_MAX;
        ExpectSameOrderAsReference(input);
    }
    QList<RW_VAR> small;
    for (int a : {INT_MAX, -1, 0, INT_MIN, 1}) {
        RW_VAR v;
        v.address = a;
        v.varId = small.size();
        v.count = v.varId % 7;
        small.append(v);
    }
    Bubble_Sort(&small);
    EXPECT_EQ(Order(small), (std::vector<std::pair<int, int>>{
                                {INT_MIN, 3}, {-1, 1}, {0, 2}, {1, 4}, {INT_MAX, 0}}));
}

TEST(BubbleSort, EqualAddresses_KeepTheirOrder) {
    QList<RW_VAR> list;
    const int addresses[] = {5, 3, 5, 3, 1, 5};
    for (int k = 0; k < 6; ++k) {
        RW_VAR v;
        v.address = addresses[k];
        v.varId = k;
        list.append(v);
    }
    Bubble_Sort(&list);
    EXPECT_EQ(Order(list),
              (std::vector<std::pair<int, int>>{{1, 4}, {3, 1}, {3, 3}, {5, 0}, {5, 2}, {5, 5}}));
}

TEST(BubbleSort, EmptyAndSingleLists_Unchanged) {
    QList<RW_VAR> empty;
    Bubble_Sort(&empty);
    EXPECT_TRUE(empty.isEmpty());
    QList<RW_VAR> one;
    RW_VAR v;
    v.address = 9;
    v.varId = 3;
    one.append(v);
    Bubble_Sort(&one);
    ASSERT_EQ(one.size(), 1);
    EXPECT_EQ(one[0].varId, 3);
}

TEST(BubbleSort, SharedCopy_LeftAsItWas) {
    std::mt19937 rng(5u);
    const QList<RW_VAR> original = RandomList(rng, 50, 0, 20);
    const auto before = Order(original);
    QList<RW_VAR> shared = original;  // implicitly shared with original
    Bubble_Sort(&shared);
    EXPECT_EQ(Order(original), before);
    EXPECT_NE(Order(shared), before);
}

TEST(BubbleSort, TenThousandEntries_SortedAndStable) {
    std::mt19937 rng(10000u);
    QList<RW_VAR> list = RandomList(rng, 10000, 0, 999);
    Bubble_Sort(&list);
    ASSERT_EQ(list.size(), 10000);
    std::vector<int> seen(10000, 0);
    for (int k = 0; k < list.size(); ++k) {
        ++seen[static_cast<size_t>(list[k].varId)];
        if (k == 0) continue;
        ASSERT_LE(list[k - 1].address, list[k].address) << "at " << k;
        if (list[k - 1].address == list[k].address) {
            ASSERT_LT(list[k - 1].varId, list[k].varId) << "equal addresses reordered at " << k;
        }
    }
    for (int k = 0; k < 10000; ++k) ASSERT_EQ(seen[static_cast<size_t>(k)], 1) << "entry " << k;
}

}  // namespace

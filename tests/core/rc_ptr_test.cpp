#include "core/rc_ptr.hpp"

#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

#include "core/reference_countable.hpp"
#include "log_capture.hpp"

namespace qm {
namespace {

const std::string NEGATIVE_COUNT_TEXT =
    "RC_PTR: possibly a memory leak: impossible to release pointer with negative reference count";

// Counts its own destructions, so tests can see exactly when a release deletes it.
class Counted : public ReferenceCountable {
public:
    explicit Counted(int& destructions) : m_destructions(&destructions) {}
    ~Counted() override { ++*m_destructions; }

private:
    int* m_destructions;
};

TEST(RcPtrTest, FreshObjectHasNoReference) {
    int destructions = 0;
    Counted object(destructions);
    EXPECT_EQ(object.reference_count(), 0);
}

TEST(RcPtrTest, FirstPointerMakesOneAndDroppingItDeletes) {
    int destructions = 0;
    auto* object = new Counted(destructions);
    {
        rc_ptr<Counted> pointer(object);
        EXPECT_EQ(object->reference_count(), 1);
        EXPECT_EQ(pointer.get(), object);
        EXPECT_EQ(&*pointer, object);
        EXPECT_TRUE(pointer);
    }
    EXPECT_EQ(destructions, 1);
}

TEST(RcPtrTest, CopiesAddAReferenceAndTheLastOneDeletes) {
    int destructions = 0;
    auto* object = new Counted(destructions);
    rc_ptr<Counted> first(object);
    {
        rc_ptr<Counted> second(first);
        rc_ptr<Counted> third;
        third = second;
        EXPECT_EQ(object->reference_count(), 3);
    }
    EXPECT_EQ(object->reference_count(), 1);
    EXPECT_EQ(destructions, 0);
    first = nullptr;
    EXPECT_EQ(destructions, 1);
    EXPECT_FALSE(first);
}

TEST(RcPtrTest, MoveTransfersTheReferenceWithoutCounting) {
    int destructions = 0;
    auto* object = new Counted(destructions);
    rc_ptr<Counted> source(object);
    rc_ptr<Counted> moved(std::move(source));
    EXPECT_EQ(object->reference_count(), 1);
    EXPECT_EQ(source.get(), nullptr);  // NOLINT(bugprone-use-after-move): moved-from is empty
    EXPECT_EQ(moved.get(), object);

    int other_destructions = 0;
    rc_ptr<Counted> target(new Counted(other_destructions));
    target = std::move(moved);
    EXPECT_EQ(other_destructions, 1);  // the target's old pointee had no other owner
    EXPECT_EQ(object->reference_count(), 1);
    EXPECT_EQ(moved.get(), nullptr);  // NOLINT(bugprone-use-after-move)
    target = rc_ptr<Counted>();
    EXPECT_EQ(destructions, 1);
}

TEST(RcPtrTest, AssigningARawPointerReleasesTheOldPointeeFirst) {
    int old_destructions = 0;
    int new_destructions = 0;
    auto* replacement = new Counted(new_destructions);
    rc_ptr<Counted> pointer(new Counted(old_destructions));
    pointer = replacement;
    EXPECT_EQ(old_destructions, 1);
    EXPECT_EQ(replacement->reference_count(), 1);
    pointer = nullptr;
    EXPECT_EQ(new_destructions, 1);
}

TEST(RcPtrTest, AssigningAPointerToItsOwnPointeeKeepsItAliveWhenShared) {
    int destructions = 0;
    auto* object = new Counted(destructions);
    rc_ptr<Counted> first(object);
    rc_ptr<Counted> second(first);
    first = second;
    EXPECT_EQ(object->reference_count(), 2);
    EXPECT_EQ(destructions, 0);
}

TEST(RcPtrTest, NullPointersAreSkipped) {
    test::LogCapture capture;
    {
        rc_ptr<Counted> empty;
        rc_ptr<Counted> copy(empty);
        rc_ptr<Counted> assigned;
        assigned = copy;
        assigned = nullptr;
        EXPECT_FALSE(empty);
        EXPECT_EQ(copy.get(), nullptr);
    }
    EXPECT_TRUE(capture.lines().empty());
}

TEST(RcPtrTest, ReleaseBelowZeroLogsOncePerReleaseAndDoesNotDelete) {
    test::LogCapture capture;
    int destructions = 0;
    Counted object(destructions);  // on the stack: a wrong delete would crash the test
    ReferenceCountable::release(&object);
    EXPECT_EQ(object.reference_count(), -1);
    EXPECT_EQ(destructions, 0);
    EXPECT_EQ(capture.lines(), std::vector<std::string>{"ERROR   | reference_countable:175 | " +
                                                        NEGATIVE_COUNT_TEXT});
    ReferenceCountable::release(&object);
    EXPECT_EQ(object.reference_count(), -2);
    EXPECT_EQ(destructions, 0);
    EXPECT_EQ(capture.count(NEGATIVE_COUNT_TEXT), 2U);
}

TEST(RcPtrTest, CopyingAnObjectDoesNotCopyItsReferences) {
    int destructions = 0;
    auto* object = new Counted(destructions);
    rc_ptr<Counted> pointer(object);
    Counted copy(*object);
    EXPECT_EQ(copy.reference_count(), 0);
    copy = *object;
    EXPECT_EQ(copy.reference_count(), 0);
}

}  // namespace
}  // namespace qm

// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: The cloud_action_daemon authors

#include "base/weak_ptr.h"

#include <gtest/gtest.h>

#include <memory>

namespace base {
namespace {

struct Owner {
  int value = 7;
  WeakPtrFactory<Owner> weak_ptr_factory{this};
};

TEST(WeakPtrTest, IsNullByDefault) {
  const WeakPtr<Owner> pointer;
  EXPECT_FALSE(pointer);
  EXPECT_EQ(nullptr, pointer.get());
}

TEST(WeakPtrTest, LeadsToItsObject) {
  Owner owner;
  const WeakPtr<Owner> pointer = owner.weak_ptr_factory.GetWeakPtr();
  EXPECT_TRUE(pointer);
  EXPECT_EQ(&owner, pointer.get());
  EXPECT_EQ(7, pointer->value);
}

TEST(WeakPtrTest, TurnsNullWithItsObject) {
  auto owner = std::make_unique<Owner>();
  const WeakPtr<Owner> pointer = owner->weak_ptr_factory.GetWeakPtr();
  const WeakPtr<Owner> copy = pointer;
  owner.reset();
  EXPECT_FALSE(pointer);
  EXPECT_EQ(nullptr, copy.get());
}

// The factory is its owner's last member, so that it goes first.
TEST(WeakPtrTest, IsNullWhileTheEarlierMembersGo) {
  struct Probed;
  struct Probe {
    ~Probe() { *was_null = !*pointer; }
    const WeakPtr<Probed>* pointer;
    bool* was_null;
  };
  struct Probed {
    Probe probe;
    WeakPtrFactory<Probed> weak_ptr_factory{this};
  };
  WeakPtr<Probed> pointer;
  bool was_null = false;
  {
    Probed probed{{&pointer, &was_null}};
    pointer = probed.weak_ptr_factory.GetWeakPtr();
    EXPECT_TRUE(pointer);
  }
  EXPECT_TRUE(was_null);
}

}  // namespace
}  // namespace base

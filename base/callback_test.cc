// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: The cloud_action_daemon authors

#include "base/callback.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace base {
namespace {

class Receiver {
 public:
  void Take(std::string bound, int supplied) {
    taken.push_back(bound + std::to_string(supplied));
  }
  size_t Count() const { return taken.size(); }
  void TakeOwned(std::unique_ptr<int> owned) {
    taken.push_back(std::to_string(*owned));
  }

  std::vector<std::string> taken;
  WeakPtrFactory<Receiver> weak_ptr_factory{this};
};

// Says whether what holds it is still there.
struct Witness {
  std::shared_ptr<int> held = std::make_shared<int>(0);
  std::weak_ptr<int> seen = held;
};

TEST(CallbackTest, RunsWhatItHolds) {
  const Callback<int(int)> twice = [](int n) { return 2 * n; };
  EXPECT_EQ(42, twice.Run(21));
}

TEST(CallbackTest, HoldsMoveOnlyFunctions) {
  const Callback<int()> callback = [value = std::make_unique<int>(7)] {
    return *value;
  };
  const Callback<int()> copy = callback;
  EXPECT_EQ(7, copy.Run());
  EXPECT_EQ(7, callback.Run());
}

TEST(CallbackTest, PassesMoveOnlyArguments) {
  const Callback<int(std::unique_ptr<int>)> callback =
      [](std::unique_ptr<int> value) { return *value; };
  EXPECT_EQ(7, callback.Run(std::make_unique<int>(7)));
}

TEST(CallbackTest, IsNullByDefaultAndAfterReset) {
  Callback<void()> callback;
  EXPECT_FALSE(callback);
  callback = [] {};
  EXPECT_TRUE(callback);
  callback.Reset();
  EXPECT_FALSE(callback);
}

TEST(CallbackTest, ReleasesWhatIsBoundWithTheLastCopy) {
  Witness witness;
  Callback<void()> callback = [held = std::move(witness.held)] {};
  Callback<void()> copy = callback;
  callback.Reset();
  EXPECT_FALSE(witness.seen.expired());
  copy.Reset();
  EXPECT_TRUE(witness.seen.expired());
}

TEST(CallbackTest, MayDestroyItselfWhileItRuns) {
  Witness witness;
  Callback<void()> callback;
  int seen_after_reset = 0;
  callback = [&callback, &seen_after_reset, held = std::move(witness.held)] {
    *held = 5;
    callback.Reset();
    seen_after_reset = *held;
  };
  callback.Run();
  EXPECT_EQ(5, seen_after_reset);
  EXPECT_TRUE(witness.seen.expired());
}

TEST(CallbackDeathTest, DiesWhenNullIsRun) {
  const Callback<void()> callback;
  EXPECT_DEATH(callback.Run(),
               "\\[FATAL\\] Check failed: keep_alive != nullptr. "
               "A null callback was run");
}

TEST(BindTest, PassesBoundArgumentsBeforeSuppliedOnes) {
  Receiver receiver;
  const Callback<void(int)> callback =
      Bind(&Receiver::Take, receiver.weak_ptr_factory.GetWeakPtr(), "number ");
  callback.Run(1);
  callback.Run(2);
  EXPECT_THAT(receiver.taken, testing::ElementsAre("number 1", "number 2"));
}

TEST(BindTest, CallsAnUnretainedReceiver) {
  Receiver receiver;
  const Callback<void(int)> callback =
      Bind(&Receiver::Take, Unretained(&receiver), "number ");
  callback.Run(1);
  EXPECT_THAT(receiver.taken, testing::ElementsAre("number 1"));
}

TEST(BindTest, ReturnsWhatAnUnretainedReceiverReturns) {
  Receiver receiver;
  receiver.taken = {"a", "b"};
  const Callback<size_t()> callback =
      Bind(&Receiver::Count, Unretained(&receiver));
  EXPECT_EQ(2u, callback.Run());
}

TEST(BindTest, DoesNothingOnceTheReceiverIsGone) {
  auto receiver = std::make_unique<Receiver>();
  const Callback<void(int)> callback =
      Bind(&Receiver::Take, receiver->weak_ptr_factory.GetWeakPtr(), "number ");
  receiver.reset();
  callback.Run(1);  // The sanitizer would see the write to the dead object.
}

TEST(BindTest, MovesAPassedArgumentIntoTheCall) {
  Receiver receiver;
  const Callback<void()> callback =
      Bind(&Receiver::TakeOwned, Unretained(&receiver),
           Passed(std::make_unique<int>(7)));
  callback.Run();
  EXPECT_THAT(receiver.taken, testing::ElementsAre("7"));
}

TEST(BindTest, ReleasesAPassedArgumentThatWasNotTaken) {
  Receiver receiver;
  struct Owner {
    void Take(std::shared_ptr<int>) {}
    WeakPtrFactory<Owner> weak_ptr_factory{this};
  } owner;
  Witness witness;
  Callback<void()> callback =
      Bind(&Owner::Take, owner.weak_ptr_factory.GetWeakPtr(),
           Passed(std::move(witness.held)));
  EXPECT_FALSE(witness.seen.expired());
  callback.Reset();
  EXPECT_TRUE(witness.seen.expired());
}

TEST(BindTest, KeepsAPassedArgumentWhenTheReceiverIsGone) {
  auto receiver = std::make_unique<Receiver>();
  const Callback<void()> callback =
      Bind(&Receiver::TakeOwned, receiver->weak_ptr_factory.GetWeakPtr(),
           Passed(std::make_unique<int>(7)));
  receiver.reset();
  callback.Run();
  callback.Run();  // Nothing was taken, so this is no second run.
}

TEST(BindDeathTest, DiesWhenAPassedArgumentIsTakenTwice) {
  Receiver receiver;
  const Callback<void()> callback =
      Bind(&Receiver::TakeOwned, Unretained(&receiver),
           Passed(std::make_unique<int>(7)));
  callback.Run();
  EXPECT_DEATH(callback.Run(), "A one-shot callback ran twice");
}

}  // namespace
}  // namespace base

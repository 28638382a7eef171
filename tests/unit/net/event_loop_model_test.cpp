#include <gtest/gtest.h>
#include <kiv/net.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <ostream>
#include <random>
#include <set>
#include <tuple>
#include <utility>
#include <vector>

#include "tests/support.h"

// The order in which one pass dispatches, while handlers change the set under it, is compared with a small model. Both
// sides run the same script: what a handler does depends on its registration number and on how often it was called.

namespace kiv::net {
namespace {

constexpr int kSlots = 8;  // Descriptor numbers in use; one handler at most is registered for each.

struct Op {
  enum Kind { kRemove, kRemoveAll, kAdd, kReregister, kReopen, kUpdate, kFill, kDrain };
  Kind kind;
  int slot;
  short events;
};

// Registrations count from 1, refused ones too. Registration 0 stands for the program outside the loop.
using Script = std::function<std::vector<Op>(unsigned registration, unsigned call)>;

struct Dispatch {
  int slot;
  unsigned registration;
  short revents;

  friend bool operator==(const Dispatch& a, const Dispatch& b) {
    return std::tie(a.slot, a.registration, a.revents) == std::tie(b.slot, b.registration, b.revents);
  }
  friend std::ostream& operator<<(std::ostream& out, const Dispatch& d) {
    return out << "slot " << d.slot << " registration " << d.registration << " revents " << d.revents;
  }
};

class Model {
 public:
  explicit Model(Script script) : mScript(std::move(script)) {}

  void Apply(const Op& op) {
    switch (op.kind) {
      case Op::kRemove:
        Remove(op.slot);
        break;
      case Op::kRemoveAll:
        mEntries.clear();
        break;
      case Op::kAdd:
        Add(op);
        break;
      case Op::kReregister:
        Remove(op.slot);
        Add(op);
        break;
      case Op::kReopen:
        Remove(op.slot);
        mReadable[Index(op.slot)] = true;
        Add(op);
        break;
      case Op::kUpdate:
        if (Entry* entry = Find(op.slot)) {
          entry->events = op.events;
        }
        break;
      case Op::kFill:
      case Op::kDrain:
        mReadable[Index(op.slot)] = op.kind == Op::kFill;
        break;
    }
  }

  void Pass() {
    std::vector<Dispatch> ready;
    for (const Entry& entry : mEntries) {
      const short state = mReadable[Index(entry.slot)] ? POLLIN | POLLOUT : POLLOUT;
      const auto revents = static_cast<short>(entry.events & state);
      if (revents != 0) {
        ready.push_back({entry.slot, entry.registration, revents});
      }
    }
    for (const Dispatch& dispatch : ready) {
      const Entry* entry = Find(dispatch.slot);
      if (entry != nullptr && entry->registration == dispatch.registration) {
        mLog.push_back(dispatch);
        for (const Op& op : mScript(dispatch.registration, mCalls[dispatch.registration]++)) {
          Apply(op);
        }
      }
    }
  }

  const std::vector<Dispatch>& Log() const { return mLog; }

  std::set<unsigned> Registered() const {
    std::set<unsigned> registered;
    for (const Entry& entry : mEntries) {
      registered.insert(entry.registration);
    }
    return registered;
  }

 private:
  struct Entry {
    int slot;
    unsigned registration;
    short events;
  };

  static std::size_t Index(int slot) { return static_cast<std::size_t>(slot); }

  Entry* Find(int slot) {
    const auto found = std::find_if(mEntries.begin(), mEntries.end(), [&](const Entry& e) { return e.slot == slot; });
    return found == mEntries.end() ? nullptr : &*found;
  }

  void Add(const Op& op) {
    ++mRegistrations;
    if (Find(op.slot) == nullptr) {
      mEntries.push_back({op.slot, mRegistrations, op.events});
    }
  }

  void Remove(int slot) {
    if (Entry* entry = Find(slot)) {
      *entry = mEntries.back();
      mEntries.pop_back();
    }
  }

  Script mScript;
  std::vector<Entry> mEntries;
  std::vector<Dispatch> mLog;
  std::array<bool, kSlots> mReadable{};
  std::map<unsigned, unsigned> mCalls;
  unsigned mRegistrations = 0;
};

// The same script on an EventLoop and eventfds.
class Subject {
 public:
  explicit Subject(Script script) : mScript(std::move(script)) {
    for (internal::UniqueFd& fd : mFds) {
      fd = test::EventFd(0);
    }
  }

  void Apply(const Op& op) {
    const int fd = mFds[static_cast<std::size_t>(op.slot)].Get();
    switch (op.kind) {
      case Op::kRemove:
        mLoop.RemoveHandler(fd);
        break;
      case Op::kRemoveAll:
        for (const internal::UniqueFd& each : mFds) {
          mLoop.RemoveHandler(each.Get());
        }
        break;
      case Op::kAdd:
        Add(op, fd);
        break;
      case Op::kReregister:
        mLoop.RemoveHandler(fd);
        Add(op, fd);
        break;
      case Op::kReopen:
        mLoop.RemoveHandler(fd);
        (void)::dup2(test::EventFd(1).Get(), fd);
        Add(op, fd);
        break;
      case Op::kUpdate:
        Update(op, fd);
        break;
      case Op::kFill:
        (void)::eventfd_write(fd, 1);
        break;
      case Op::kDrain:
        eventfd_t count = 0;
        (void)::eventfd_read(fd, &count);
        break;
    }
  }

  void Pass() { test::RunOnePass(mLoop); }

  const std::vector<Dispatch>& Log() const { return mLog; }

  std::set<unsigned> Registered() const {
    std::set<unsigned> registered;
    for (const auto& [registration, handler] : mAlive) {
      registered.insert(registration);
    }
    return registered;
  }

 private:
  class Handler : public EventHandler {
   public:
    Handler(Subject& subject, const Op& op, int fd, unsigned registration)
        : mSubject(subject), mSlot(op.slot), mFd(fd), mRegistration(registration), mEvents(op.events) {
      mSubject.mAlive[mRegistration] = this;
    }
    ~Handler() override { mSubject.mAlive.erase(mRegistration); }

    void OnEvent(int fd, short revents) override {
      EXPECT_EQ(fd, mFd);
      mSubject.OnDispatch({mSlot, mRegistration, revents});
    }
    int GetFd() override { return mFd; }
    short GetEvents() override { return mEvents; }

    void SetEvents(short events) { mEvents = events; }

   private:
    Subject& mSubject;
    int mSlot;
    int mFd;
    unsigned mRegistration;
    short mEvents;
  };

  void OnDispatch(const Dispatch& dispatch) {
    mLog.push_back(dispatch);
    for (const Op& op : mScript(dispatch.registration, mCalls[dispatch.registration]++)) {
      Apply(op);
    }
  }

  void Add(const Op& op, int fd) { mLoop.AddHandler(std::make_unique<Handler>(*this, op, fd, ++mRegistrations)); }

  void Update(const Op& op, int fd) {
    for (const auto& [registration, handler] : mAlive) {
      if (handler->GetFd() == fd) {
        handler->SetEvents(op.events);
      }
    }
    mLoop.UpdateHandler(fd);
  }

  Script mScript;
  std::array<internal::UniqueFd, kSlots> mFds;
  std::vector<Dispatch> mLog;
  std::map<unsigned, Handler*> mAlive;
  std::map<unsigned, unsigned> mCalls;
  unsigned mRegistrations = 0;
  EventLoop mLoop;
};

void ExpectLikeTheModel(const Script& script, const std::vector<Op>& setUp, unsigned passes) {
  Model model(script);
  Subject subject(script);
  for (const Op& op : setUp) {
    model.Apply(op);
    subject.Apply(op);
  }
  for (unsigned pass = 0; pass < passes; ++pass) {
    for (const Op& op : script(0, pass)) {
      model.Apply(op);
      subject.Apply(op);
    }
    model.Pass();
    subject.Pass();
    ASSERT_EQ(subject.Log(), model.Log()) << "pass " << pass;
    ASSERT_EQ(subject.Registered(), model.Registered()) << "pass " << pass;
  }
}

class Random {
 public:
  explicit Random(std::uint32_t seed) : mEngine(seed) { mEngine.discard(2); }

  unsigned Below(unsigned limit) { return static_cast<unsigned>(mEngine() >> 8) % limit; }

  int Slot() { return static_cast<int>(Below(kSlots)); }

  short Events() {
    constexpr std::array<short, 6> kChoices{0, POLLIN, POLLIN, POLLIN, POLLOUT, POLLIN | POLLOUT};
    return kChoices[Below(kChoices.size())];
  }

  Op Operation() {
    constexpr std::array<Op::Kind, 14> kChoices{
        Op::kRemove, Op::kRemove,     Op::kRemove,     Op::kAdd,    Op::kAdd,    Op::kAdd,  Op::kReregister,
        Op::kReopen, Op::kReregister, Op::kReregister, Op::kUpdate, Op::kUpdate, Op::kFill, Op::kDrain};
    const Op::Kind kind = Below(40) == 0 ? Op::kRemoveAll : kChoices[Below(kChoices.size())];
    const int slot = Slot();
    return {kind, slot, Events()};
  }

  std::vector<Op> Operations() {
    std::vector<Op> operations(Below(2) == 0 ? 0 : Below(4));
    std::generate(operations.begin(), operations.end(), [this] { return Operation(); });
    return operations;
  }

 private:
  std::minstd_rand mEngine;
};

std::vector<Op> RandomSetUp(Random& random) {
  std::vector<Op> setUp;
  for (int slot = 0; slot < kSlots; ++slot) {
    setUp.push_back({random.Below(4) == 0 ? Op::kDrain : Op::kFill, slot, 0});
  }
  for (int added = 0; added < kSlots; ++added) {
    const int slot = random.Slot();
    setUp.push_back({Op::kAdd, slot, random.Events()});
  }
  return setUp;
}

TEST(EventLoopProcessEvents, DispatchesRandomScriptsInTheOrderOfTheModel) {
  const unsigned scripts = test::IsSlowMachine() ? 400 : 4000;
  constexpr unsigned kPasses = 4;
  for (unsigned seed = 1; seed <= scripts && !HasFatalFailure(); ++seed) {
    SCOPED_TRACE(seed);
    const auto script = [seed](unsigned registration, unsigned call) {
      return Random(seed * 7919 + registration * 104729 + call * 1299709).Operations();
    };
    Random random(seed);
    ExpectLikeTheModel(script, RandomSetUp(random), kPasses);
  }
}

// Everything one of `handlers` handlers may do to the set, itself included.
std::vector<std::vector<Op>> Choices(int handlers) {
  std::vector<std::vector<Op>> choices{{}, {{Op::kRemoveAll, 0, 0}}, {{Op::kAdd, handlers, POLLIN}}};
  for (int slot = 0; slot < handlers; ++slot) {
    choices.push_back({{Op::kRemove, slot, 0}});
    choices.push_back({{Op::kReopen, slot, POLLIN}});
    choices.push_back({{Op::kUpdate, slot, POLLOUT}});
  }
  return choices;
}

// Runs every combination of choices: handler i is registration i + 1 and makes its choice at its first call.
void TryEveryCombination(int handlers) {
  std::vector<Op> setUp;
  for (int slot = 0; slot < kSlots; ++slot) {
    setUp.push_back({Op::kFill, slot, 0});
  }
  for (int slot = 0; slot < handlers; ++slot) {
    setUp.push_back({Op::kAdd, slot, POLLIN});
  }
  const std::vector<std::vector<Op>> choices = Choices(handlers);
  std::size_t combinations = 1;
  for (int i = 0; i < handlers; ++i) {
    combinations *= choices.size();
  }
  // All of them, or every one of so many that their digits still take all values.
  const std::size_t step = combinations > 10000 && test::IsSlowMachine() ? 37 : 1;
  for (std::size_t combination = 0; combination < combinations && !testing::Test::HasFatalFailure();
       combination += step) {
    SCOPED_TRACE(combination);
    const auto script = [&](unsigned registration, unsigned call) {
      if (registration == 0 || registration > static_cast<unsigned>(handlers) || call > 0) {
        return std::vector<Op>();
      }
      std::size_t digits = combination;
      for (unsigned i = 1; i < registration; ++i) {
        digits /= choices.size();
      }
      return choices[digits % choices.size()];
    };
    ExpectLikeTheModel(script, setUp, 2);
  }
}

TEST(EventLoopProcessEvents, DispatchesEveryCombinationOfOneAndTwoHandlersLikeTheModel) {
  TryEveryCombination(1);
  TryEveryCombination(2);
}

TEST(EventLoopProcessEvents, DispatchesEveryCombinationOfThreeHandlersLikeTheModel) { TryEveryCombination(3); }

TEST(EventLoopProcessEvents, DispatchesEveryCombinationOfFourHandlersLikeTheModel) { TryEveryCombination(4); }

}  // namespace
}  // namespace kiv::net

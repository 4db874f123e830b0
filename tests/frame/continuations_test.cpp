#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <new>
#include <stdexcept>
#include <vector>

#include "frame/cps.h"
#include "frame/frame.h"

namespace {

using Yield = boost::coroutines::push_coroutine<unsigned int>;

struct Freer {
  void operator()(continuation_context* handle) const { free_continuation_handle(handle); }
};
using Handle = std::unique_ptr<continuation_context, Freer>;

Handle Create(std::function<void(Yield&)> const& body) {
  return Handle(metalayer::create_continuation_handle(body));
}

struct Step {
  unsigned int status;
  bool more;
  Handle next;
};

Step RunStep(Handle const& handle) {
  continuation_context* next = reinterpret_cast<continuation_context*>(1);
  bool more = true;
  unsigned int const status = run_continuation(handle.get(), &next, &more);
  EXPECT_EQ(more, next != nullptr);
  return {status, more, Handle(next)};
}

// Notes its own destruction.
struct Local {
  explicit Local(bool* out) : destroyed(out) {}
  ~Local() { *destroyed = true; }
  bool* destroyed;
};

TEST(ContinuationsTest, Body_RunsToItsFirstYieldAtCreation) {
  std::vector<int> log;
  Handle const handle = Create([&](Yield& yield) {
    log.push_back(1);
    yield(0);
    log.push_back(2);
  });
  EXPECT_EQ((std::vector<int>{1}), log);
}

TEST(ContinuationsTest, FirstRun_TakesTheWaitingValueWithoutResuming) {
  std::vector<int> log;
  Handle const handle = Create([&](Yield& yield) {
    yield(0);
    log.push_back(2);
  });
  Step const step = RunStep(handle);
  EXPECT_EQ(0u, step.status);
  EXPECT_TRUE(step.more);
  EXPECT_TRUE(log.empty());
}

TEST(ContinuationsTest, NormalEnd_IsAStepOfItsOwn) {
  std::vector<int> log;
  Handle handle = Create([&](Yield& yield) {
    for (int i = 0; i < 2; ++i) {
      yield(0);
      log.push_back(i);
    }
  });
  for (int i = 0; i < 2; ++i) {
    Step step = RunStep(handle);
    EXPECT_EQ(0u, step.status);
    ASSERT_TRUE(step.more);
    handle = std::move(step.next);
  }
  Step const last = RunStep(handle);
  EXPECT_EQ(0u, last.status);
  EXPECT_FALSE(last.more);
  EXPECT_EQ((std::vector<int>{0, 1}), log);
}

TEST(ContinuationsTest, BodyWithoutAYield_IsOverAtTheFirstRun) {
  Step const step = RunStep(Create([](Yield&) {}));
  EXPECT_EQ(0u, step.status);
  EXPECT_FALSE(step.more);
}

TEST(ContinuationsTest, Status_IsTheLastValue) {
  bool destroyed = false;
  {
    Handle const handle = Create([&](Yield& yield) {
      Local const local(&destroyed);
      yield(4711);
    });
    Step const step = RunStep(handle);
    EXPECT_EQ(4711u, step.status);
    EXPECT_FALSE(step.more);
    EXPECT_FALSE(destroyed);
  }
  EXPECT_TRUE(destroyed);
}

TEST(ContinuationsTest, RunThroughAnOlderHandleAfterTheEnd_IsOverAgain) {
  Handle const first = Create([](Yield& yield) { yield(0); });
  Step const second = RunStep(first);
  ASSERT_TRUE(second.more);
  EXPECT_FALSE(RunStep(second.next).more);
  for (Handle const* const handle : {&first, &second.next}) {
    Step const again = RunStep(*handle);
    EXPECT_EQ(0u, again.status);
    EXPECT_FALSE(again.more);
  }
}

TEST(ContinuationsTest, FreeingNull_DoesNothing) { free_continuation_handle(nullptr); }

TEST(ContinuationsTest, FreeingAnEarlierHandle_KeepsTheComputation) {
  bool destroyed = false;
  Handle first = Create([&](Yield& yield) {
    Local const local(&destroyed);
    yield(0);
    yield(0);
  });
  Step step = RunStep(first);
  first.reset();
  EXPECT_FALSE(destroyed);
  EXPECT_TRUE(RunStep(step.next).more);
}

TEST(ContinuationsTest, FreeingTheLastHandle_UnwindsTheBody) {
  bool destroyed = false;
  bool went_on = false;
  Handle handle = Create([&](Yield& yield) {
    Local const local(&destroyed);
    yield(0);
    went_on = true;
  });
  handle.reset();
  EXPECT_TRUE(destroyed);
  EXPECT_FALSE(went_on);
}

TEST(ContinuationsTest, UnwindingPassesThroughAFrame_AndPutsTheContextBack) {
  *metalayer::TlsMetalayerContext::Current() = 3;
  bool returned = false;
  Handle handle = Create([&](Yield& yield) {
    metalayer::MetalayerFunction<true>(17, [&] { yield(0); });
    returned = true;
  });
  EXPECT_EQ(17u, *metalayer::TlsMetalayerContext::Current());
  handle.reset();
  EXPECT_EQ(3u, *metalayer::TlsMetalayerContext::Current());
  EXPECT_FALSE(returned);
  *metalayer::TlsMetalayerContext::Current() = 0;
}

// ---- exceptions ---------------------------------------------------------------------------------

TEST(ContinuationsTest, ExceptionBeforeTheFirstYield_LeavesTheCreation) {
  EXPECT_THROW(Create([](Yield&) { throw std::bad_alloc(); }), std::bad_alloc);
}

TEST(ContinuationsTest, LaterException_LeavesTheStepThatResumed) {
  bool destroyed = false;
  Handle const first = Create([&](Yield& yield) {
    Local const local(&destroyed);
    yield(0);
    throw std::runtime_error("second leg");
  });
  Step const step = RunStep(first);
  ASSERT_TRUE(step.more);
  EXPECT_THROW(RunStep(step.next), std::runtime_error);
  EXPECT_TRUE(destroyed);
}

TEST(ContinuationsTest, RunAfterAnException_IsOver) {
  Handle const first = Create([](Yield& yield) {
    yield(0);
    throw std::runtime_error("second leg");
  });
  Step const step = RunStep(first);
  EXPECT_THROW(RunStep(step.next), std::runtime_error);
  Step const again = RunStep(step.next);
  EXPECT_EQ(0u, again.status);
  EXPECT_FALSE(again.more);
}

TEST(ContinuationsTest, ExceptionsOnBothSides_DoNotMix) {
  std::vector<int> caught;
  Handle const first = Create([&](Yield& yield) {
    try {
      throw 1;
    } catch (int const value) {
      caught.push_back(value);
    }
    yield(0);
    try {
      throw 3;
    } catch (int const value) {
      caught.push_back(value);
    }
  });
  Step const step = RunStep(first);
  try {
    throw 2;
  } catch (int const value) {
    caught.push_back(value);
    RunStep(step.next);
  }
  EXPECT_EQ((std::vector<int>{1, 2, 3}), caught);
}

TEST(ContinuationsTest, DeepBody_HasRoomOnItsStack) {
  std::function<int(int)> const descend = [&](int depth) -> int {
    unsigned char volatile frame[1024];
    frame[0] = static_cast<unsigned char>(depth);
    return depth == 0 ? frame[0] : descend(depth - 1) + frame[0] * 0 + 1;
  };
  int reached = 0;
  Handle const handle = Create([&](Yield& yield) {
    reached = descend(60);
    yield(0);
  });
  EXPECT_EQ(60, reached);
}

}  // namespace

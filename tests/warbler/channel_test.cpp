// What any thread may do with a client, without a client.
#include "channel.h"

#include <event2/event.h>
#include <event2/thread.h>
#include <gtest/gtest.h>

#include <memory>
#include <new>
#include <string>

#include "oom.h"
#include "test_client.h"

using namespace std::chrono_literals;
using test_support::parse_stanza;

namespace {

struct BaseFree {
  void operator()(event_base *base) const { event_base_free(base); }
};

// An open channel over a base that is dispatched on demand.
class ChannelTest : public testing::Test {
 protected:
  ChannelTest() { channel_.open("user@grid.test/qlk", 0, 100'000); }

  void run_loop() { event_base_loop(base_.get(), EVLOOP_NONBLOCK); }
  bool send(size_t bytes, wb_errcode *code = nullptr) {
    wb_err err{};
    const bool sent = channel_.send(
        parse_stanza("<message xmlns='jabber:client'><body>" + std::string(bytes, 'x') + "</body></message>"), &err);
    if (code != nullptr) *code = err.code;
    return sent;
  }
  bool track(std::chrono::seconds timeout) {
    const auto count = [](wb_dom_node *, void *arg) { ++static_cast<ChannelTest *>(arg)->called_back_; };
    return channel_.track(parse_stanza("<iq xmlns='jabber:client' type='get' to='bob@grid.test/qlk'/>"), {count, this}, timeout,
                          nullptr);
  }
  int call_back_unanswered() {
    int called = 0;
    for (wb::TrackedIq iq{}; channel_.take_unanswered(iq); ++called) iq.callback(nullptr, iq.arg);
    return called;
  }

  static event_base *make_base() {
    evthread_use_pthreads();
    return event_base_new();
  }

  const std::unique_ptr<event_base, BaseFree> base_{make_base()};
  const std::shared_ptr<wb::LoopGate> gate_ = std::make_shared<wb::LoopGate>();
  int wanted_ = 0;
  int called_back_ = 0;
  wb::Channel channel_{base_.get(), gate_, [this] { ++wanted_; }};
};

TEST_F(ChannelTest, WhatTheSessionHasTakenStillWaits) {
  ASSERT_TRUE(send(60'000));
  EXPECT_FALSE(send(60'000));
  std::string taken;
  channel_.take(taken);
  EXPECT_GT(taken.size(), 60'000u);
  wb_errcode code = WB_ERR_NONE;
  EXPECT_FALSE(send(60'000, &code));
  EXPECT_EQ(WB_ERR_NO_MEMORY, code);
  channel_.set_backlog(0);
  EXPECT_TRUE(send(60'000));
}

TEST_F(ChannelTest, RefusingKeepsWhatWasSentAndWhoWaits) {
  ASSERT_TRUE(send(10));
  ASSERT_TRUE(track(60s));
  channel_.refuse();
  wb_errcode code = WB_ERR_NONE;
  EXPECT_FALSE(send(10, &code));
  EXPECT_EQ(WB_ERR_INVALID_STATE, code);
  EXPECT_FALSE(track(60s));
  std::string taken;
  channel_.take(taken);
  EXPECT_NE(std::string::npos, taken.find("<message"));
  EXPECT_NE(std::string::npos, taken.find("<iq"));
  EXPECT_EQ(0, called_back_);
  channel_.close();
  EXPECT_EQ(1, call_back_unanswered());
}

TEST_F(ChannelTest, TheLoopIsWokenOnceForAllThatCame) {
  for (int i = 0; i < 3; ++i) ASSERT_TRUE(send(10));
  run_loop();
  EXPECT_EQ(1, wanted_);
}

#if QLK_HAS_OOM
// An IQ is tracked, written and called back, or it is refused and not called back: whichever allocation fails.
TEST_F(ChannelTest, TrackingWithoutMemory) {
  const long total = oom::count([&] { ASSERT_TRUE(track(0s)); });
  run_loop();
  ASSERT_EQ(1, called_back_);
  for (long nth = 1; nth <= 2 * total; ++nth) {
    wb_dom_node *iq = parse_stanza("<iq xmlns='jabber:client' type='get' to='bob@grid.test/qlk'/>");
    std::string before, after;
    channel_.take(before);
    channel_.set_backlog(0);
    called_back_ = 0;
    bool tracked = false;
    {
      const oom::FailNth failing(nth);
      try {
        const auto count = [](wb_dom_node *, void *arg) { ++*static_cast<int *>(arg); };
        tracked = channel_.track(iq, {count, &called_back_}, 0s, nullptr);
      } catch (const std::bad_alloc &) {
      }
    }
    channel_.take(after);
    channel_.set_backlog(0);
    run_loop();
    EXPECT_EQ(tracked ? 1 : 0, called_back_) << nth;
    EXPECT_EQ(tracked, !after.empty()) << nth;
  }
}

// While they expire, nothing can be had: each is called back all the same, and the next deadline is not forgotten.
TEST_F(ChannelTest, ExpiringWithoutMemory) {
  for (int i = 0; i < 100; ++i) ASSERT_TRUE(track(0s));
  ASSERT_TRUE(track(1s));
  {
    const oom::FailNth failing(1);
    run_loop();
  }
  while (called_back_ < 100) run_loop();
  EXPECT_EQ(100, called_back_);
  while (called_back_ < 101) event_base_loop(base_.get(), EVLOOP_ONCE);
  channel_.close();
  EXPECT_EQ(0, call_back_unanswered());
}

TEST_F(ChannelTest, ClosingWithoutMemory) {
  for (int i = 0; i < 100; ++i) ASSERT_TRUE(track(60s));
  {
    const oom::FailNth failing(1);
    channel_.close();
    EXPECT_EQ(100, call_back_unanswered());
  }
  EXPECT_EQ(100, called_back_);
}
#endif

}  // namespace

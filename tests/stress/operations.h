// What the threads of the stress do, by a table, with connections and downloads that they share.
#pragma once

#include <array>
#include <chrono>
#include <deque>
#include <memory>
#include <mutex>
#include <shared_mutex>
#include <utility>
#include <vector>

#include "member.h"

namespace stress {

class Stress {
 public:
  explicit Stress(unsigned seed);
  ~Stress();
  Stress(const Stress &) = delete;
  Stress &operator=(const Stress &) = delete;

  void run(unsigned seed, std::chrono::seconds time);
  // The faults are over: each connection works with the good server, and so do downloads.
  void expect_recovery();
  // The library is shut down while a connection and a download are left, and brought up again.
  void expect_restart();
  void report() const;

 private:
  struct Slot {
    std::shared_mutex mutex;  // exclusive to destroy: other calls must have returned
    Member member;
  };
  // Of one thread at a time, but not always of the same.
  struct Download {
    std::mutex mutex;
    std::shared_ptr<quillon_config> config;
    quillon_bulkdownload *bulk = nullptr;
    bool is_open = false, is_silent = false;
    size_t items = 0;  // that came
  };
  struct Operation;
  static const Operation kOperations[];

  Watch &new_watch();
  void work(Random &random);

  // With the slot's mutex shared.
  void begin_query(Slot &slot, Random &random);
  void cancel_query(Slot &slot, Random &random);
  void ask_controller(Slot &slot, Random &random);
  void keep_up(Slot &slot, Random &random);
  void renew(Slot &slot, Random &random);
  void reload_credentials(Slot &slot, Random &random);
  void look(Slot &slot, Random &random);
  void download(Slot &slot, Random &random);
  // With it exclusive.
  void remake(Slot &slot, Random &random);
  void remake_capability(Slot &slot, Random &random);
  // With connections of their own.
  void end_soon(Slot &slot, Random &random);

  void open_download(Download &download, const std::string &url);
  bool read_item(Download &download);
  void close_download(Download &download);
  // Nothing came too late, and each query ended once.
  void expect_all_is_over();

  Servers servers_;
  std::mutex watches_mutex_;
  std::vector<std::unique_ptr<Watch>> watches_;
  std::array<Slot, 3> slots_;
  std::array<Download, 3> downloads_;
  std::mutex pending_mutex_;
  std::deque<quillon_pending_query *> pending_;
  std::mutex names_mutex_;  // both names of credentials are set at once
  std::mutex slowest_mutex_;
  std::pair<std::chrono::steady_clock::duration, const char *> slowest_ = {};  // how long it took, and what
  std::atomic<size_t> operations_ = 0, made_ = 0, items_ = 0;
};

}  // namespace stress

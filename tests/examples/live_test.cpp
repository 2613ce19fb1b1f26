// The live table's two sides, over a wire that loses, repeats and holds back what it is given.
#include <gtest/gtest.h>

#include <deque>
#include <functional>
#include <map>
#include <random>
#include <variant>

#include "live_feed.h"
#include "live_mirror.h"

namespace live {
namespace {

using Content = std::map<RouteKey, NextHops>;

Content content(const LiveTable &table) {
  Content content;
  for (const auto &[key, route] : table.routes()) content[key] = route.next_hops();
  return content;
}

TEST(LiveTable, ChecksumDependsOnEveryMemberAndNotOnTheOrder) {
  const RouteKey key = {254, {0x20010DB8, 0, 0, 0}, 32, 1024};
  const NextHop hop = {{0xFE800000, 0, 0, 1}, 2, 3, 4, 1, 9, 1};
  const auto checksum = [](const RouteKey &k, const NextHops &hops) {
    LiveTable table;
    table.set(k, hops);
    return table.checksum();
  };
  std::map<uint64_t, int> seen = {{0, 0}, {checksum(key, {hop}), 0}, {checksum(key, {hop, hop}), 0}};
  int members = 0;
  const auto differs = [&](auto change) {
    RouteKey other_key = key;
    NextHop other = hop;
    change(other_key, other);
    EXPECT_TRUE(seen.emplace(checksum(other_key, {other}), ++members).second) << "member " << members;
  };
  differs([](RouteKey &k, NextHop &) { ++k.table; });
  for (std::size_t i = 0; i < 4; ++i) differs([i](RouteKey &k, NextHop &) { ++k.prefix[i]; });
  differs([](RouteKey &k, NextHop &) { ++k.length; });
  differs([](RouteKey &k, NextHop &) { ++k.metric; });
  for (std::size_t i = 0; i < 4; ++i) differs([i](RouteKey &, NextHop &h) { ++h.gateway[i]; });
  differs([](RouteKey &, NextHop &h) { ++h.interface; });
  differs([](RouteKey &, NextHop &h) { ++h.object; });
  differs([](RouteKey &, NextHop &h) { ++h.encapsulation; });
  differs([](RouteKey &, NextHop &h) { ++h.type; });
  differs([](RouteKey &, NextHop &h) { ++h.protocol; });
  differs([](RouteKey &, NextHop &h) { ++h.weight; });

  LiveTable table;
  table.set({1}, {hop});
  table.set({2}, {hop});
  const uint64_t both = table.checksum();
  table.erase({1});
  table.set({1}, {hop});
  EXPECT_EQ(table.checksum(), both);
  table.erase({2});
  table.erase({1});
  EXPECT_EQ(table.checksum(), 0u);
}

// What a receiver makes of messages: a letter and the number of each. B begin, R and D a route and its deletion, X a
// route of another stream; E and H the table's end and a heartbeat that say what there is, and with small letters ones
// that say something else.
TEST(LiveMirror, IsWholeOnlyWhenEverythingHasCome) {
  const struct {
    const char *messages;
    bool whole;
    std::size_t routes;
  } cases[] = {
      {"B1 R2", false, 2},         {"B1 R2 E3", true, 1},    {"B1 E2", true, 0},          {"B1 R2 e3", false, 1},
      {"B1 R2 c3", false, 1},      {"B1 R2 E3 H4", true, 1}, {"B1 R2 E3 h4", false, 1},   {"B1 R2 E4", false, 2},
      {"B1 R2 R2 E3 E3", true, 1}, {"B1 R2 X9 E3", true, 1}, {"B1 R2 E3 R2 D4", true, 0}, {"B1 R2 E3 D4 R2", true, 0},
      {"B1 R2 E3 D5", false, 1},   {"R2 E3", false, 1},      {"B1 R2 E3 g4", false, 1},
  };
  for (const auto &each : cases) {
    SCOPED_TRACE(each.messages);
    constexpr uint32_t kStream = 5;
    const RouteKey key = {254, {1, 0, 0, 0}, 32, 1};
    const NextHop hop = {{}, 1, 0, 0, 1, 2, 1};
    LiveTable sent;
    Mirror mirror(kStream - 1);
    EXPECT_EQ(mirror.ask(), kStream - 1);
    for (const char *former : {"B1", "R2", "E3"}) {  // of which only what comes again may stay
      fib6Sync_ipv6FwdUpdateMsg route = make_route({254, {2, 0, 0, 0}, 32, 1}, hop);
      fib6Sync_svcCtxMsg mark = make_mark(*former == 'B' ? kBegin : kEnd, {1, 0, 0});
      mark.f0 = route.f0 = {kStream - 1, static_cast<uint32_t>(former[1] - '0')};
      *former == 'R' ? mirror.take(route) : mirror.take(mark);
    }
    EXPECT_EQ(mirror.ask(), kStream);
    for (const char *at = each.messages; *at != '\0'; at += at[2] == ' ' ? 3 : 2) {
      const fib6Sync_tlv header = {kStream + (*at == 'X'), static_cast<uint32_t>(at[1] - '0')};
      const auto take = [&](auto message) {
        message.f0 = header;
        mirror.take(message);
      };
      Summary summary = summarize(1, sent);
      if (*at == 'e' || *at == 'h') ++summary.count;
      if (*at == 'c') ++summary.checksum;
      if (*at == 'g') ++summary.generation;
      if (*at == 'R') sent.set(key, {hop});
      if (*at == 'D') sent.erase(key);
      switch (*at) {
        case 'B':
          take(make_mark(kBegin, summary));
          break;
        case 'R':
        case 'X':
          take(make_route(key, hop));
          break;
        case 'D':
          take(make_deletion(key));
          break;
        default:
          take(make_mark(*at == 'E' || *at == 'e' || *at == 'c' ? kEnd : kBeat, summary));
      }
    }
    EXPECT_EQ(mirror.whole(), each.whole);
    EXPECT_EQ(mirror.table().size(), each.routes);
    EXPECT_EQ(mirror.wants_table(), !each.whole && std::string(each.messages) != "B1 R2");
  }
}

// A sender, a receiver, and what is on its way between them.
class LiveWire : public testing::Test {
 protected:
  uint32_t random(uint32_t below) { return static_cast<uint32_t>(random_()) % below; }

  void change_routes(int count) {
    for (; count > 0; --count) {
      const RouteKey key = {254, {0x20010DB8, random(300), 0, 0}, 64, random(2)};
      NextHops hops;
      for (uint32_t i = 0; i <= random(3); ++i)
        hops.push_back({{0, 0, 0, i}, random(3), 0, random(2) * random(9), 1, 4, 1});
      if (random(3) == 0) {
        feed_->table().erase(key);
      } else {
        feed_->table().set(key, hops);
      }
    }
    feed_->name_interface(random(3), "eth" + std::to_string(random(100)));
  }

  void answer_request() {
    const auto number = mirror_->ask();
    if (number && random(5) != 0) stream_.emplace(*feed_, *number);
  }

  void send(uint32_t most = UINT32_MAX) {
    if (!stream_) return;
    stream_->beat();  // which has to wait for what comes before it
    for (; most != 0 && stream_->next() != nullptr; --most) {
      wire_.push_back(*stream_->next());
      stream_->sent();
    }
    feed_->forget(stream_->position());
  }

  void deliver_all() {
    const auto take = [this](const auto &messages) {
      for (const auto &message : messages) mirror_->take(message);
    };
    for (; !wire_.empty(); wire_.pop_front()) std::visit(take, wire_.front());
  }

  // Until the receiver wants nothing and has everything.
  void settle() {
    for (int i = 0; i < 60; ++i) {
      mirror_->tick();
      answer_request();
      send();
      deliver_all();
    }
    ASSERT_TRUE(mirror_->whole());
    ASSERT_EQ(mirror_->counters().differences, 0u);  // what is lost shows before
    ASSERT_EQ(content(mirror_->table()), content(feed_->table()));
    ASSERT_EQ(mirror_->summary(), feed_->summary());
    for (const auto &[key, route] : feed_->table().routes()) {
      const uint32_t interface = route.next_hops()[0].interface;
      if (!feed_->interface_name(interface).empty()) {
        ASSERT_EQ(mirror_->interface_name(interface), feed_->interface_name(interface));
      }
    }
  }

  std::mt19937 random_{7};
  uint32_t generation_ = 1;
  std::optional<Feed> feed_{std::in_place, generation_};
  std::optional<Stream> stream_;
  std::deque<Batch> wire_;
  std::optional<Mirror> mirror_{std::in_place, 1000};
};

TEST_F(LiveWire, BringsWhatChangesMeanwhile) {
  change_routes(900);
  stream_.emplace(*feed_, *mirror_->ask());
  for (const uint32_t sent : {1U, 50U, 100U, 200U, 5000U}) {
    send(sent);
    change_routes(10);
  }
  deliver_all();
  EXPECT_TRUE(mirror_->whole());
  send();
  deliver_all();
  EXPECT_EQ(mirror_->summary(), feed_->summary());
  EXPECT_EQ(mirror_->counters().tables, 1u);
  EXPECT_EQ(mirror_->counters().differences, 0u);
}

TEST_F(LiveWire, EndsEqualWhateverHappens) {
  const std::vector<std::function<void()>> happenings = {
      [this] {
        if (!wire_.empty()) wire_.erase(wire_.begin() + random(static_cast<uint32_t>(wire_.size())));
      },
      [this] {
        if (!wire_.empty()) wire_.push_back(wire_[random(static_cast<uint32_t>(wire_.size()))]);
      },
      [this] { mirror_.emplace(static_cast<uint32_t>(random_())); },
      [this] {
        stream_.reset();
        feed_.emplace(++generation_);
        change_routes(600);
      },
      [this] { stream_.reset(); },
  };
  for (int round = 0; round < 200; ++round) {
    change_routes(static_cast<int>(random(100)));
    send(random(400));
    if (random(4) == 0) happenings[random(static_cast<uint32_t>(happenings.size()))]();
    if (random(3) != 0) deliver_all();
    answer_request();
    if (round % 10 == 9) settle();
  }
}

}  // namespace
}  // namespace live

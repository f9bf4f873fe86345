#include "websocket/client_places.h"

#include <gtest/gtest.h>

#include <map>
#include <sstream>
#include <string>
#include <vector>

namespace tarnlink::test {
namespace {

// A peer is what one machine or network can use as it likes: it must not get more attempts, nor
// more places, by taking further addresses.
TEST(ClientPlaces, PeersAreAddressesNetworksAndThisComputer) {
  const struct {
    const char* address;
    const char* peer;
  } cases[] = {
      {"192.0.2.7", "192.0.2.7"},
      {"127.0.0.1", "loopback"},
      {"127.9.9.9", "loopback"},
      {"::1", "loopback"},
      {"2001:db8:1:2:3:4:5:6", "2001:db8:1:2::/64"},
      {"2001:db8:1:2:ffff::", "2001:db8:1:2::/64"},
      {"2001:db8:1:3::1", "2001:db8:1:3::/64"},
      {"fe80::1%1", "fe80::/64"},
  };
  for (const auto& [address, peer] : cases) {
    EXPECT_EQ(peerOf(boost::asio::ip::make_address(address)), peer) << address;
  }
}

// Connections are one letter each, which names their peer. "a" connects, "A" is admitted, "-a"
// leaves, "?a" begins to wait to be admitted. Of several of one peer the first that is still there.
TEST(ClientPlaces, StrangersKeepNobodyOut) {
  const struct {
    const char* name;
    std::size_t limit;
    const char* steps;
    const char* there;  // at the end, by peer
    const char* lost;   // who made room, in this order
    int refused;
  } cases[] = {
      {"any number", 0, "a a a A b", "aaaab", "", 0},
      {"one peer has a quarter", 8, "a a a b", "aab", "a", 0},
      {"the admitted of a peer do not count", 8, "A A A a a", "aaaaa", "", 0},
      {"a quarter of few is one", 2, "a a b", "ab", "a", 0},
      {"the oldest goes when all are taken", 4, "A b c d e", "acde", "b", 0},
      {"who waits goes last", 4, "b ?b c d e f", "bdef", "c", 0},
      {"and goes then", 2, "a ?a b ?b c", "bc", "a", 0},
      {"but not for its own peer", 4, "a ?a a", "a", "", 1},
      {"nobody else", 2, "A B c", "ab", "", 1},
      {"a place is free again", 2, "A B -a c", "bc", "", 0},
      {"a lost one counts no more", 4, "a a a B C D", "abcd", "aa", 0},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    ClientPlaces places(c.limit);
    std::multimap<char, std::shared_ptr<ClientPlaces::Place>> there;
    std::vector<std::shared_ptr<ClientPlaces::Place>> losers;  // as sockets that close a bit later
    std::string lost, left;
    int refused = 0;
    std::istringstream steps(c.steps);
    for (std::string step; steps >> step;) {
      const char peer = static_cast<char>(std::tolower(step.back()));
      if (step.front() == '-') {
        there.erase(there.find(peer));
      } else if (step.front() == '?') {
        there.find(peer)->second->setStanding(Standing::waiting);
      } else if (const auto place = places.take(std::string(1, peer))) {
        const auto key = there.emplace(peer, place);
        place->onLost([&, key] {
          lost += key->first;
          losers.push_back(key->second);
          there.erase(key);
        });
        if (step.back() != peer) place->setStanding(Standing::admitted);
      } else {
        ++refused;
      }
    }
    for (const auto& [peer, place] : there) left += peer;
    EXPECT_EQ(left, c.there);
    EXPECT_EQ(lost, c.lost);
    EXPECT_EQ(refused, c.refused);
  }
}

}  // namespace
}  // namespace tarnlink::test

#include "websocket/client_places.h"

#include <algorithm>
#include <list>
#include <mutex>
#include <utility>

namespace tarnlink {
namespace {

// Of all places, for those from one peer that are not admitted.
constexpr std::size_t kShareOfOnePeer = 4;

}  // namespace

std::string peerOf(const boost::asio::ip::address& address) {
  if (address.is_loopback()) return "loopback";
  if (address.is_v4()) return address.to_string();
  auto network = address.to_v6().to_bytes();
  std::fill(network.begin() + 8, network.end(), static_cast<unsigned char>(0));
  return boost::asio::ip::address_v6(network).to_string() + "/64";
}

struct ClientPlaces::Taken {
  std::mutex lock;
  std::size_t limit = 0;
  std::list<Place*> places;  // the oldest first

  // The oldest place of that standing; of one peer where one is given.
  auto oldest(Standing standing, const std::string* peer = nullptr) {
    return std::find_if(places.begin(), places.end(), [&](const Place* place) {
      return place->standing_ == standing && (peer == nullptr || place->peer_ == *peer);
    });
  }
};

ClientPlaces::ClientPlaces(std::size_t limit) : taken_(std::make_shared<Taken>()) {
  taken_->limit = limit;
}

std::shared_ptr<ClientPlaces::Place> ClientPlaces::take(const std::string& peer) {
  auto made = std::make_shared<Place>(taken_, peer);
  const std::lock_guard hold(taken_->lock);
  auto& places = taken_->places;
  if (taken_->limit != 0) {
    const auto share = std::max<std::size_t>(taken_->limit / kShareOfOnePeer, 1);
    const auto isStrangerOfPeer = [&peer](const Place* place) {
      return place->standing_ != Standing::admitted && place->peer_ == peer;
    };
    const auto strangers = std::count_if(places.begin(), places.end(), isStrangerOfPeer);
    const bool isShareTaken = static_cast<std::size_t>(strangers) >= share;
    if (isShareTaken || places.size() >= taken_->limit) {
      auto loser = taken_->oldest(Standing::stranger, isShareTaken ? &peer : nullptr);
      if (loser == places.end() && !isShareTaken) loser = taken_->oldest(Standing::waiting);
      if (loser == places.end()) return nullptr;
      if ((*loser)->onLost_) (*loser)->onLost_();
      places.erase(loser);
    }
  }
  places.push_back(made.get());
  return made;
}

ClientPlaces::Place::Place(std::shared_ptr<Taken> taken, std::string peer)
    : taken_(std::move(taken)), peer_(std::move(peer)) {}

ClientPlaces::Place::~Place() {
  const std::lock_guard hold(taken_->lock);
  taken_->places.remove(this);
}

void ClientPlaces::Place::setStanding(Standing standing) {
  const std::lock_guard hold(taken_->lock);
  standing_ = standing;
}

void ClientPlaces::Place::onLost(std::function<void()> handler) {
  const std::lock_guard hold(taken_->lock);
  onLost_ = std::move(handler);
}

}  // namespace tarnlink

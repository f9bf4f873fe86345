// Who may be connected at a time: the listener's places, of which strangers keep nobody out.
#pragma once

#include <boost/asio/ip/address.hpp>
#include <cstddef>
#include <functional>
#include <memory>
#include <string>

#include "websocket/websocket.h"

namespace tarnlink {

/// See WebSocketConnection::peer().
std::string peerOf(const boost::asio::ip::address& address);

/// A limited number of places for connections. Any thread.
class ClientPlaces {
 public:
  /// Taken until it is dropped, or lost to a newcomer.
  class Place;

  /// 0: any number.
  explicit ClientPlaces(std::size_t limit);

  /// A place for a stranger. Where all are taken, the oldest connection that is not admitted loses
  /// its own, one that waits in the queue to be admitted last. Strangers of one peer have a quarter
  /// of all places between them, and there the oldest makes room, too, but none that waits. Null
  /// when nobody has to make room.
  std::shared_ptr<Place> take(const std::string& peer);

 private:
  struct Taken;
  std::shared_ptr<Taken> taken_;
};

class ClientPlaces::Place {
 public:
  Place(std::shared_ptr<Taken> taken, std::string peer);
  ~Place();
  Place(const Place&) = delete;
  Place& operator=(const Place&) = delete;

  void setStanding(Standing standing);

  /// Called once when a newcomer gets the place, on the newcomer's thread. It must not block, nor
  /// drop the place.
  void onLost(std::function<void()> handler);

 private:
  friend ClientPlaces;
  const std::shared_ptr<Taken> taken_;
  const std::string peer_;
  // Guarded by the lock of all places.
  Standing standing_ = Standing::stranger;
  std::function<void()> onLost_;
};

}  // namespace tarnlink

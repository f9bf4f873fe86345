#include "websocket/text_frame.h"

#include <cstdint>
#include <cstring>
#include <utility>

namespace tarnlink {
namespace {

// RFC 6455, 5.2: FIN with opcode 1, then the payload length in 7, 7+16 or 7+64 bits, unmasked.
constexpr unsigned char kFinText = 0x81;
constexpr std::size_t kMaxShort = 125;
constexpr std::size_t kMaxMedium = 65535;

// Writes the header so that it ends where the text begins; returns its length.
std::size_t writeHeader(char* textBegin, std::size_t length) {
  const std::size_t lengthOctets = length <= kMaxShort ? 0 : length <= kMaxMedium ? 2 : 8;
  auto* header = reinterpret_cast<unsigned char*>(textBegin) - 2 - lengthOctets;
  header[0] = kFinText;
  header[1] = static_cast<unsigned char>(lengthOctets == 0   ? length
                                         : lengthOctets == 2 ? 126
                                                             : 127);
  for (std::size_t i = 0; i < lengthOctets; ++i) {
    const auto shift = 8 * (lengthOctets - 1 - i);
    header[2 + i] = static_cast<unsigned char>(std::uint64_t{length} >> shift);
  }
  return 2 + lengthOctets;
}

}  // namespace

/// Puts the one object that it is asked for at the beginning of the storage, and gives the whole
/// storage back with it.
template <class T>
struct TextFrame::InStorage {
  using value_type = T;

  explicit InStorage(char* octets) : storage(octets) {}
  template <class Other>
  explicit InStorage(const InStorage<Other>& other) : storage(other.storage) {}

  T* allocate(std::size_t) {
    static_assert(sizeof(T) <= kObjectRoom && alignof(T) <= __STDCPP_DEFAULT_NEW_ALIGNMENT__);
    return reinterpret_cast<T*>(storage);
  }
  void deallocate(T*, std::size_t) { delete[] storage; }

  template <class Other>
  bool operator==(const InStorage<Other>& other) const {
    return storage == other.storage;
  }

  char* storage;
};

TextFrame::TextFrame(char* storage, std::size_t storageSize, std::size_t textLength)
    : storage_(storage),
      storageSize_(storageSize),
      begin_(kHeaderRoom - writeHeader(storage + kHeaderRoom, textLength)),
      end_(kHeaderRoom + textLength) {}

std::shared_ptr<const TextFrame> TextFrame::adopt(std::unique_ptr<char[]> storage,
                                                  std::size_t storageSize, std::size_t textLength) {
  char* octets = storage.release();  // Nothing throws from here on.
  return std::allocate_shared<TextFrame>(InStorage<TextFrame>(octets), octets, storageSize,
                                         textLength);
}

std::shared_ptr<const TextFrame> TextFrame::copyOf(std::string_view text) {
  const std::size_t size = kHeaderRoom + text.size();
  std::unique_ptr<char[]> storage(new char[size]);
  if (!text.empty()) std::memcpy(storage.get() + kHeaderRoom, text.data(), text.size());
  return adopt(std::move(storage), size, text.size());
}

}  // namespace tarnlink

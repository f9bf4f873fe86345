#include "app/desktop/single_instance.h"

#include <QCoreApplication>
#include <QDBusConnection>
#include <QDBusMessage>
#include <QDBusVirtualObject>
#include <QMetaObject>
#include <QVariantMap>
#include <utility>

namespace tarnlink {
namespace {

// As the Desktop Entry Specification has it, "D-Bus Activation".
const QString kName = QStringLiteral("com.korvel.tarnlink");
const QString kPath = QStringLiteral("/com/korvel/tarnlink");
const QString kInterface = QStringLiteral("org.freedesktop.Application");
const QString kActivate = QStringLiteral("Activate");

constexpr int kAnswerTime = 2'000;  // Milliseconds.

class Activation final : public QDBusVirtualObject {
 public:
  explicit Activation(std::function<void()> activated)
      : QDBusVirtualObject(qApp), activated_(std::move(activated)) {}

  QString introspect(const QString&) const override { return {}; }

  bool handleMessage(const QDBusMessage& message, const QDBusConnection& bus) override {
    if (message.interface() != kInterface || message.member() != kActivate) return false;
    bus.send(message.createReply());
    QMetaObject::invokeMethod(this, activated_, Qt::QueuedConnection);
    return true;
  }

 private:
  const std::function<void()> activated_;
};

}  // namespace

bool becomeOnlyInstance(std::function<void()> activated) {
  auto bus = QDBusConnection::sessionBus();
  if (!bus.isConnected()) return true;
  if (bus.registerService(kName)) {
    bus.registerVirtualObject(kPath, new Activation(std::move(activated)));
    return true;
  }
  auto call = QDBusMessage::createMethodCall(kName, kPath, kInterface, kActivate);
  call << QVariantMap();
  bus.call(call, QDBus::Block, kAnswerTime);
  return false;
}

}  // namespace tarnlink

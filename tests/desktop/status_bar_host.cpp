#include "tests/desktop/status_bar_host.h"

#include <QCoreApplication>
#include <QDBusArgument>
#include <QDBusInterface>
#include <chrono>
#include <stdexcept>
#include <thread>

namespace tarnlink::test {
namespace {

using namespace std::chrono_literals;

constexpr auto kLimit = 10s;
const QString kWatcher = QStringLiteral("org.kde.StatusNotifierWatcher");

// (ia{sv}av): the item and its children.
QVariantList readNode(const QVariant& node, ShownItem& item) {
  const auto argument = node.value<QDBusArgument>();
  QVariantMap properties;
  QVariantList children;
  argument.beginStructure();
  argument >> item.id >> properties >> children;
  argument.endStructure();
  item.label = properties.value(QStringLiteral("label")).toString().toStdString();
  item.isEnabled = properties.value(QStringLiteral("enabled"), true).toBool();
  item.isChecked = properties.value(QStringLiteral("toggle-state")).toInt() == 1;
  return children;
}

}  // namespace

ShownItem ShownMenu::find(const std::string& text) const {
  for (const auto& item : items) {
    if (item.label.find(text) != std::string::npos) return item;
  }
  return {};
}

StatusBarHost::StatusBarHost(bool hasHost)
    : isHostRegistered(hasHost), bus_(QDBusConnection::sessionBus()) {
  const auto all = QDBusConnection::ExportAllSlots | QDBusConnection::ExportAllProperties;
  if (!bus_.registerObject(QStringLiteral("/StatusNotifierWatcher"), this, all) ||
      !bus_.registerService(kWatcher)) {
    throw std::runtime_error("no session bus");
  }
}

void StatusBarHost::serve() {
  QCoreApplication::processEvents();
}

void StatusBarHost::awaitItem() {
  const auto deadline = std::chrono::steady_clock::now() + kLimit;
  while (item_.isEmpty()) {
    if (std::chrono::steady_clock::now() > deadline) throw std::runtime_error("no item registers");
    QCoreApplication::processEvents(QEventLoop::WaitForMoreEvents | QEventLoop::AllEvents, 100);
  }
  serve();  // The answer goes out.
  const QDBusInterface item(item_, QStringLiteral("/StatusNotifierItem"),
                            QStringLiteral("org.kde.StatusNotifierItem"), bus_);
  menuPath_ = item.property("Menu").value<QDBusObjectPath>().path();
}

QVariantList StatusBarHost::call(const char* method, const QVariantList& arguments) const {
  auto question = QDBusMessage::createMethodCall(
      item_, menuPath_, QStringLiteral("com.canonical.dbusmenu"), QLatin1String(method));
  question.setArguments(arguments);
  const auto answer = bus_.call(question, QDBus::Block, 10'000);
  if (answer.type() != QDBusMessage::ReplyMessage) {
    throw std::runtime_error(method + (": " + answer.errorMessage().toStdString()));
  }
  return answer.arguments();
}

ShownMenu StatusBarHost::menu() const {
  ShownMenu shown;
  ShownItem root;
  for (const auto& child : readNode(call("GetLayout", {0, -1, QStringList()}).at(1), root)) {
    readNode(child, shown.items.emplace_back());
  }
  return shown;
}

ShownMenu StatusBarHost::awaitMenu(const std::string& text, bool isChecked) const {
  const auto deadline = std::chrono::steady_clock::now() + kLimit;
  while (true) {
    auto shown = menu();
    const auto item = shown.find(text);
    if (item.id != 0 && item.isChecked == isChecked) return shown;
    if (std::chrono::steady_clock::now() > deadline) {
      throw std::runtime_error("the menu does not show " + text);
    }
    std::this_thread::sleep_for(50ms);
  }
}

void StatusBarHost::sendEvent(int item, const char* event) const {
  call("Event",
       {item, QLatin1String(event), QVariant::fromValue(QDBusVariant(0)), QVariant::fromValue(0U)});
}

}  // namespace tarnlink::test

#pragma once

// An application whose main loop is Qt's, watched by quorveld:
//
//   quorvel::Watched<QApplication> app(argc, argv);        in place of QApplication, or any other of its kind
//   app.watch("org.example.viewer", "viewer");
//   return app.exec();
//
// What receivers of events do is a turn, named MainThread; waiting is none, in a dialog's own loop neither.
// Qt 5 or 6.

#include <quorvel.h>

#include <QAbstractEventDispatcher>
#include <QCoreApplication>
#include <QSocketNotifier>
#include <QThread>
#include <memory>
#include <quorvel.hpp>

namespace quorvel {

/// `Application` is QCoreApplication or derives from it. Its thread only.
template <class Application>
class Watched : public Application {
 public:
  using Application::Application;

  /// qv_watch, with the connection's descriptor in the main loop. Returns what qv_watch does, which is not
  /// always a reason to give up.
  int watch(const char* bundleID, const char* name) {
    const int watched = qv_watch(bundleID, name);
    const int fd = qv_fd();
    if (fd < 0) return watched;
    slot_ = std::make_unique<Slot>("MainThread");
    notifier_ = std::make_unique<QSocketNotifier>(fd, QSocketNotifier::Read);
    QObject::connect(notifier_.get(), &QSocketNotifier::activated, this, [] { qv_process(); });
    // A turn that runs a loop of its own waits there, and does not hang.
    QObject::connect(QAbstractEventDispatcher::instance(), &QAbstractEventDispatcher::aboutToBlock, this,
                     [this] { qv_slot_end(slot_->get()); });
    return watched;
  }

  bool notify(QObject* receiver, QEvent* event) override {
    if (!slot_ || QThread::currentThread() != this->thread()) return Application::notify(receiver, event);
    const ScopedTurn turn(*slot_, true);
    return Application::notify(receiver, event);
  }

 private:
  std::unique_ptr<Slot> slot_;
  std::unique_ptr<QSocketNotifier> notifier_;
};

}  // namespace quorvel

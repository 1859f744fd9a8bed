#include <gtest/gtest.h>
#include <quorvel-sd-event.h>
#include <unistd.h>

#include <cerrno>
#include <functional>
#include <memory>
#include <thread>
#include <utility>

#include "tests/client/fake_daemon.h"
#include "tests/patience.h"

#ifdef HAVE_GLIB
#include <quorvel-glib.h>
#endif
#ifdef HAVE_QT
#include <QEventLoop>
#include <QTimer>
#include <quorvel-qt.hpp>
#endif

// An application's main loop, watched through its header: what its handlers do is marked, its waiting is not,
// and neither is that of a loop that a handler runs.

namespace {

class MainLoops : public testing::Test {
 protected:
  void SetUp() override { daemon_.start(); }
  void TearDown() override { qv_disconnect(); }

  void watched(int result) {
    ASSERT_TRUE(result == 0 || result == -EINPROGRESS || result == -ETIMEDOUT) << result;
    ASSERT_TRUE(processUntil([this] { return daemon_.received() > 0; }));
    region_ = std::make_unique<MappedRegion>(daemon_.memory());
  }
  /// In a handler: a turn is in flight.
  void expectTurn() {
    ASSERT_EQ(region_->inFlight().size(), 1u);
    EXPECT_STREQ(region_->inFlight()[0]->hangName, "MainThread");
  }
  /// On another thread, while the loop has nothing to do.
  void awaitRest() {
    EXPECT_TRUE(quorveld::tests::eventually([this] { return region_->inFlight().empty(); }));
  }
  uint64_t turnStart() const { return region_->inFlight().at(0)->startTime; }

  FakeDaemon daemon_;
  std::unique_ptr<MappedRegion> region_;
};

using Handler = std::function<void()>;

/// Runs `handler` on `event` now.
void post(sd_event* event, Handler& handler) {
  const auto call = [](sd_event_source*, void* data) {
    (*static_cast<Handler*>(data))();
    return 0;
  };
  sd_event_add_defer(event, nullptr, call, &handler);
}

TEST_F(MainLoops, SdEventsTurnsAreMarkedAndNest) {
  sd_event* outer = nullptr;
  ASSERT_EQ(sd_event_new(&outer), 0);
  watched(qv_sd_event_watch(outer, "org.example.viewer", "viewer"));
  Handler handler = [&] {
    expectTurn();
    const uint64_t before = turnStart();
    sd_event* inner = nullptr;
    ASSERT_EQ(sd_event_new(&inner), 0);
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    const auto exit = [](sd_event_source* source, int, uint32_t, void*) {
      return sd_event_exit(sd_event_source_get_event(source), 3);
    };
    sd_event_add_io(inner, nullptr, ends[0], EPOLLIN, exit, nullptr);
    std::thread ending([&] {
      awaitRest();
      close(ends[1]);
    });
    EXPECT_EQ(qv_sd_event_loop(inner), 3);
    ending.join();
    close(ends[0]);
    sd_event_unref(inner);
    expectTurn();  // the outer one
    EXPECT_GT(turnStart(), before);
    sd_event_exit(outer, 4);
  };
  post(outer, handler);
  EXPECT_EQ(qv_sd_event_loop(outer), 4);
  sd_event_unref(outer);
  qv_slot_release(std::exchange(qv_sd_event_slot, nullptr));  // this process has other tests
  EXPECT_TRUE(region_->inFlight().empty());
}

TEST_F(MainLoops, GLibsTurnsAreMarkedAndNest) {
#ifdef HAVE_GLIB
  watched(qv_glib_watch(nullptr, "org.example.viewer", "viewer"));
  const auto post = [](Handler& handler) {
    const auto call = [](void* data) -> gboolean {
      (*static_cast<Handler*>(data))();
      return G_SOURCE_REMOVE;
    };
    g_idle_add(call, &handler);
  };
  const auto runToRest = [this] {
    GMainLoop* loop = g_main_loop_new(nullptr, FALSE);
    std::thread ending([&] {
      awaitRest();
      g_main_loop_quit(loop);
    });
    g_main_loop_run(loop);
    ending.join();
    g_main_loop_unref(loop);
  };
  Handler handler = [&] {
    expectTurn();
    const uint64_t before = turnStart();
    runToRest();
    expectTurn();
    EXPECT_GT(turnStart(), before);
  };
  post(handler);
  // Not before the handler: nothing is in flight as yet, either.
  while (g_main_context_iteration(nullptr, FALSE)) {
  }
  runToRest();
  qv_glib_unwatch();
  EXPECT_TRUE(region_->inFlight().empty());
#else
  GTEST_SKIP() << "GLib's headers (libglib2.0-dev) were not there when this was built";
#endif
}

TEST_F(MainLoops, QtsTurnsAreMarkedAndNest) {
#ifdef HAVE_QT
  int count = 1;
  char name[] = "viewer";
  char* arguments[] = {name, nullptr};
  quorvel::Watched<QCoreApplication> application(count, arguments);
  watched(application.watch("org.example.viewer", "viewer"));
  bool handled = false;
  QTimer::singleShot(0, [&] {
    expectTurn();
    const uint64_t before = turnStart();
    QEventLoop inner;
    std::thread ending([&] {
      awaitRest();
      QMetaObject::invokeMethod(&inner, "quit", Qt::QueuedConnection);
    });
    inner.exec();
    ending.join();
    expectTurn();
    EXPECT_GT(turnStart(), before);
    handled = true;
    QCoreApplication::quit();
  });
  application.exec();
  EXPECT_TRUE(handled);
  EXPECT_TRUE(region_->inFlight().empty());
#else
  GTEST_SKIP() << "Qt's headers (qtbase5-dev or qt6-base-dev) were not there when this was built";
#endif
}

}  // namespace

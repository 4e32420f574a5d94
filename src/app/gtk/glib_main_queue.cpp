#include "app/gtk/glib_main_queue.h"

#include <utility>

namespace qev::app {
namespace {

struct PendingTask {
  std::shared_ptr<void> gate;  // keeps the gate alive while the source waits
  const std::atomic<bool>* open;
  std::function<void()> run;
};

gboolean runPendingTask(gpointer data) {
  auto* task = static_cast<PendingTask*>(data);
  if (task->open->load() && task->run) task->run();
  return G_SOURCE_REMOVE;
}

void freePendingTask(gpointer data) {
  delete static_cast<PendingTask*>(data);
}

}  // namespace

GlibMainQueue::GlibMainQueue(GMainContext* context)
    : context_(g_main_context_ref(context ? context : g_main_context_default())) {}

GlibMainQueue::~GlibMainQueue() {
  close();
  g_main_context_unref(context_);
}

void GlibMainQueue::post(std::function<void()> task) {
  // An idle source, unlike g_main_context_invoke, never runs the task inline when the caller
  // already is on the loop's thread: a completion never re-enters the code that posted it.
  auto* pending = new PendingTask{gate_, &gate_->open, std::move(task)};
  GSource* source = g_idle_source_new();
  g_source_set_priority(source, G_PRIORITY_DEFAULT);
  g_source_set_callback(source, runPendingTask, pending, freePendingTask);
  g_source_set_static_name(source, "qev main queue task");
  g_source_attach(source, context_);
  g_source_unref(source);
}

void GlibMainQueue::close() {
  gate_->open = false;
}

}  // namespace qev::app

// A host's dialog observer for tests: records every notification as a line
// of text, with the thread it came on, and may act on one (press a button).
#pragma once
#include <cstdio>
#include <functional>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "sxsys.h"

namespace sxtest {

class UiRecorder {
 public:
  using SetObserverFn = decltype(&::SxSysUiSetObserver);
  using PressFn = decltype(&::SxSysUiPress);
  using EscapeFn = decltype(&::SxSysUiEscape);

  // The functions of the library the observer is installed in.
  UiRecorder(SetObserverFn setObserver, PressFn press, EscapeFn escape)
      : setObserver_(setObserver), press_(press), escape_(escape) {
    setObserver_(&Observe, this);
  }
  ~UiRecorder() { setObserver_(nullptr, nullptr); }
  UiRecorder(const UiRecorder&) = delete;
  UiRecorder& operator=(const UiRecorder&) = delete;

  // Called with each line as it is recorded; may press buttons.
  std::function<void(const std::string& line, SxDialog dialog)> OnEvent;

  int32_t Press(SxDialog dialog, int32_t control) { return press_(dialog, control); }
  int32_t Escape(SxDialog dialog) { return escape_(dialog); }

  std::vector<std::string> Lines() const {
    std::lock_guard<std::mutex> guard(lock_);
    return lines_;
  }
  // The lines that start with one of the prefixes.
  std::vector<std::string> Only(std::initializer_list<const char*> prefixes) const {
    std::vector<std::string> kept;
    for (const std::string& line : Lines()) {
      for (const char* prefix : prefixes) {
        if (line.rfind(prefix, 0) == 0) {
          kept.push_back(line);
          break;
        }
      }
    }
    return kept;
  }
  std::set<std::thread::id> Threads() const {
    std::lock_guard<std::mutex> guard(lock_);
    return threads_;
  }
  void Clear() {
    std::lock_guard<std::mutex> guard(lock_);
    lines_.clear();
    threads_.clear();
  }

  static std::string Describe(const SxUiEvent& e) {
    char head[96];
    const std::string text = e.Text ? e.Text : "";
    switch (e.Kind) {
      case SX_UI_OPEN: return std::string("open ") + e.Name + " " + text;
      case SX_UI_CLOSE: return "close";
      case SX_UI_CAPTION: return "caption " + text;
      case SX_UI_TEXT: return "text " + std::to_string(e.Control) + " " + text;
      case SX_UI_SHOW: return "show " + std::to_string(e.Control) + " " + std::to_string(e.Value);
      case SX_UI_ENABLE: return "enable " + std::to_string(e.Control) + " " + std::to_string(e.Value);
      case SX_UI_FILL:
        std::snprintf(head, sizeof head, "fill %d %d/%d %06x", e.Control, e.Value, e.Extent, e.Color);
        return head;
      case SX_UI_CURSOR: return e.Value == SX_UI_CURSOR_WAIT ? "cursor wait" : "cursor arrow";
      case SX_UI_MESSAGEBOX: return std::string("box ") + e.Name + ": " + text;
      default: return "unknown " + std::to_string(e.Kind);
    }
  }

 private:
  static void SX_API Observe(const SxUiEvent* event, void* context) {
    auto* self = static_cast<UiRecorder*>(context);
    const std::string line = Describe(*event);
    {
      std::lock_guard<std::mutex> guard(self->lock_);
      self->lines_.push_back(line);
      self->threads_.insert(std::this_thread::get_id());
    }
    if (self->OnEvent) self->OnEvent(line, event->Dialog);
  }

  SetObserverFn setObserver_;
  PressFn press_;
  EscapeFn escape_;
  mutable std::mutex lock_;
  std::vector<std::string> lines_;
  std::set<std::thread::id> threads_;
};

}  // namespace sxtest

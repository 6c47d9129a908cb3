#include "kit/ServeOptions.h"

#include "kit/Parse.h"

namespace sx::host {
namespace {

constexpr char kNoAnnounce[] = "--no-announce";

}  // namespace

bool SetServeOption(std::string_view name, std::string_view value, ServeOptions* options, std::string* error) {
  if (name == kNoAnnounce) {
    options->announce = false;
    return true;
  }
  if (name == "--port") {
    int64_t port = 0;
    if (!ParseInteger(value, 0, kLargestPort, &port)) {
      *error = "--port wants a TCP port, 0 to 65535 (0: any free port)";
      return false;
    }
    options->port = static_cast<int>(port);
    return true;
  }
  std::string* text = name == "--listen" ? &options->listen
                      : name == "--source" ? &options->source
                      : name == "--name"   ? &options->name
                                           : nullptr;
  if (!text) {
    *error = "unknown option " + std::string(name) + " for serve";
    return false;
  }
  if (value.empty()) {
    *error = std::string(name) + " wants a value";
    return false;
  }
  *text = std::string(value);
  return true;
}

std::vector<std::string> ServeArguments(const ServeOptions& options) {
  std::vector<std::string> args = {"--listen", options.listen, "--port", std::to_string(options.port)};
  if (!options.source.empty()) args.insert(args.end(), {"--source", options.source});
  if (!options.name.empty()) args.insert(args.end(), {"--name", options.name});
  if (!options.announce) args.push_back(kNoAnnounce);
  return args;
}

bool ReadServeArguments(const std::vector<std::string>& args, ServeOptions* options, std::string* error) {
  ServeOptions read;
  for (size_t i = 0; i < args.size(); ++i) {
    // Also "--name=value", for a person who runs the server program directly.
    const std::string_view arg = args[i];
    const size_t eq = arg.find('=');
    const std::string_view name = arg.substr(0, eq);
    std::string_view value = eq == std::string_view::npos ? std::string_view() : arg.substr(eq + 1);
    if (eq == std::string_view::npos && name != kNoAnnounce) {
      if (i + 1 >= args.size()) {
        *error = std::string(name) + " needs a value";
        return false;
      }
      value = args[++i];
    }
    if (!SetServeOption(name, value, &read, error)) return false;
  }
  *options = read;
  return true;
}

}  // namespace sx::host

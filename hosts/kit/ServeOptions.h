// What `sxscan serve` asks of the eSCL server, and how the options travel to
// it: `sxscan serve` checks the person's command line and runs the server
// program, sxscan-serve, with the arguments ServeArguments writes, which the
// server reads back with ReadServeArguments. Both ends of that hand-over are
// here, so that they cannot drift apart.
#pragma once
#include <string>
#include <string_view>
#include <vector>

namespace sx::host {

// The eSCL server's port when none is given: clear of the ports that web
// servers and printers take.
constexpr int kDefaultServePort = 8090;
constexpr int kLargestPort = 65535;

struct ServeOptions {
  // Loopback unless the person opens the server to the network.
  std::string listen = "127.0.0.1";
  int port = kDefaultServePort;  // 0: any free port, printed when serving
  std::string source;            // a display name (or part); empty: the chosen source
  std::string name;              // what clients list; empty: make and model
  bool announce = true;
};

// The server's option `name` ("--port") with its value: false with the
// reason for a value it cannot take, or a name that is not one of them.
// `--no-announce` takes no value (pass an empty one).
bool SetServeOption(std::string_view name, std::string_view value, ServeOptions* options, std::string* error);

// The server program's arguments (without the program's name) for `options`.
std::vector<std::string> ServeArguments(const ServeOptions& options);
// The options from those arguments (or their "--name=value" forms); false
// with the reason for anything else.
bool ReadServeArguments(const std::vector<std::string>& args, ServeOptions* options, std::string* error);

}  // namespace sx::host

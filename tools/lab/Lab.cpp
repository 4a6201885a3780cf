#include "tools/lab/Lab.h"

#include <fmt/format.h>

#include <utility>

#include "base/Reading.h"
#include "platform/data/JSON.h"
#include "tools/Arguments.h"

namespace corvid::lab {

namespace {

std::string localURL(std::string_view scheme, const HTTPServer& server, std::string_view path) {
  return fmt::format("{}://localhost:{}{}", scheme, server.port(), path);
}

}  // namespace

Lab::Lab(const std::string& root, Options options)
    : _rootFolder(root),
      _root(root),
      _identity(_root.tlsFolder()),
      _signer(_root.signingKeyFile()),
      _received(_root.receivedFile()),
      _collectors(_received),
      _storebagFolder(_root.storebagFolder(), _signer, options.maxAge,
                      [this](std::string_view name) {
                        if (name == "dashboardPort") return std::to_string(_dashboard.port());
                        return localURL("https", _reportServer, fmt::format("/{}", name));
                      }),
      _dashboard([this](const Dictionary& entry) { _received.append(entry); },
                 options.dashboardPort),
      _reportServer([this](const Request& request) { return report(request); },
                    {_identity.server(), options.reportPort}),
      _storebagServer(
          [this](const Request& request) {
            return _faults.apply("storebags", _storebagFolder.answer(request));
          },
          {_identity.server(), options.storebagPort}),
      _controlServer([this](const Request& request) { return control(request); },
                     {std::nullopt, options.controlPort}) {
  _root.writeFiles(_signer.publicKeyDER());
  _root.writeDeployment(_storebagServer.port(), _identity.caFile());
}

Answer Lab::report(const Request& request) {
  const std::string_view path =
      std::string_view(request.target).substr(0, request.target.find('?'));
  if (path == "/events") return _faults.apply("events", _collectors.events("events", request));
  if (path == "/realtime")
    return _faults.apply("realtime", _collectors.events("realtime", request));
  if (path == "/logData") return _faults.apply("logData", _collectors.logData(request));
  if (path == "/upload") return _faults.apply("upload", _collectors.upload(request));
  return {.status = 404, .body = "this server has /events, /realtime, /logData and /upload\n"};
}

Answer Lab::control(const Request& request) {
  if (request.method != "POST" || request.target != "/fault")
    return {.status = 404, .body = "this server has POST /fault\n"};
  const Result<Value> plan = parseJSON(request.body);
  const Dictionary* fault = plan ? plan.value().dictionary() : nullptr;
  if (fault == nullptr) return {.status = 400, .body = "the body is no JSON object\n"};
  try {
    if (textAt(*fault, "server") == "dashboard")
      _dashboard.setFaults(*fault);
    else
      _faults.set(*fault);
    return {.status = 200, .body = "planned\n"};
  } catch (const tools::InputError& error) {
    return {.status = 400, .body = fmt::format("{}\n", error.what())};
  }
}

Dictionary Lab::addresses() const {
  return {{"root", _rootFolder},
          {"storebags", localURL("https", _storebagServer, "")},
          {"events", localURL("https", _reportServer, "/events")},
          {"realtime", localURL("https", _reportServer, "/realtime")},
          {"logData", localURL("https", _reportServer, "/logData")},
          {"upload", localURL("https", _reportServer, "/upload")},
          {"dashboard", fmt::format("127.0.0.1:{}", _dashboard.port())},
          {"control", localURL("http", _controlServer, "/fault")},
          {"received", _root.receivedFile()}};
}

}  // namespace corvid::lab

#include "tools/lab/Lab.h"

#include <fmt/format.h>

#include <algorithm>
#include <utility>

#include "base/Reading.h"
#include "platform/data/JSON.h"
#include "tools/Arguments.h"
#include "tools/JSONValues.h"
#include "tools/lab/Origin.h"

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
      _feed(options.hasPage ? std::make_optional<Feed>() : std::nullopt),
      _collectors(_received),
      _storebagFolder(_root.storebagFolder(), _signer, options.maxAge,
                      [this](std::string_view name) {
                        if (name == "dashboardPort") return std::to_string(_dashboard.port());
                        return localURL("https", _reportServer, fmt::format("/{}", name));
                      }),
      _dashboard(
          [this](const Dictionary& entry) {
            _received.append(entry);
            if (_feed) _feed->add(entry);
          },
          options.dashboardPort),
      _reportServer([this](const Request& request) { return report(request); },
                    {_identity.server(), options.reportPort}),
      _storebagServer([this](const Request& request) { return storebag(request); },
                      {_identity.server(), options.storebagPort}),
      _controlServer([this](const Request& request) { return control(request); },
                     {std::nullopt, options.controlPort}) {
  _root.writeFiles(_signer.publicKeyDER());
  _root.writeDeployment(_storebagServer.port(), _identity.caFile());
  if (!_feed) return;
  _page.emplace(forPage(), options.pagePort);
  _feed->setState("lab", addresses());
}

Answer Lab::storebag(const Request& request) {
  Answer answer = _storebagFolder.answer(request);
  const std::string name = StorebagServer::nameIn(request.target);
  return finish("storebags", request, std::move(answer), {{"storebag", name}});
}

Answer Lab::report(const Request& request) {
  const std::string_view path =
      std::string_view(request.target).substr(0, request.target.find('?'));
  const std::string server(path.substr(std::min<std::size_t>(path.size(), 1)));
  Dictionary entry;
  const auto finished = [&](Answer answer) {
    return finish(server, request, std::move(answer), std::move(entry));
  };
  if (path == "/events" || path == "/realtime")
    return finished(_collectors.events(server, request, &entry));
  if (path == "/logData") return finished(_collectors.logData(request, &entry));
  if (path == "/upload") return finished(_collectors.upload(request, &entry));
  return {.status = 404, .body = "this server has /events, /realtime, /logData and /upload\n"};
}

Answer Lab::finish(const std::string& server, const Request& request, Answer answer,
                   Dictionary entry) {
  const std::optional<Dictionary> fault = _faults.take(server);
  if (fault) answer = FaultPlan::spoiled(std::move(answer), *fault);
  if (!_feed) return answer;
  if (!entry.contains("server"))
    entry.addEntriesFrom(
        {{"server", server}, {"target", request.target}, {"bytes", request.body.size()}});
  entry.set("status", answer.status);
  entry.set("answerBytes", answer.body.size());
  if (fault) entry.set("fault", *fault);
  if (const auto name = textAt(entry, "storebag"); name && !name->empty()) {
    _storebagWatch.note(*name, answer.status, fault.has_value());
    showStorebags();
  }
  _feed->add(std::move(entry));
  if (fault) showFaults();
  return answer;
}

void Lab::showFaults() {
  Dictionary faults = _faults.plans();
  if (Dictionary dashboard = _dashboard.faults(); !dashboard.empty())
    faults.set("dashboard", std::move(dashboard));
  _feed->setState("faults", faults);
}

void Lab::showStorebags() {
  _feed->setState("storebags", {{"storebags", _storebagWatch.storebags()}});
}

WebPage::Lab Lab::forPage() {
  return {.feed = *_feed,
          .refresh =
              [this] {
                showFaults();
                showStorebags();
              },
          .plan = [this](const Request& request) { return plan(request); },
          .storebag = [this](const std::string& name) -> Answer {
            const Result<Value> list = _storebagFolder.list(name);
            if (!list) return {.status = 200, .body = list.failure().message + "\n"};
            const auto text = writeJSON({{name, tools::jsonFromValue(list.value())}});
            return {.status = 200,
                    .headers = {{"Content-Type", "application/json"}},
                    .body = text ? indentedJSON(*text) : "JSON cannot hold it\n"};
          }};
}

Answer Lab::control(const Request& request) {
  if (!isOfThisOrigin(request))
    return {.status = 403, .body = "this is not for web pages of others\n"};
  if (request.method != "POST" || request.target != "/fault")
    return {.status = 404, .body = "this server has POST /fault\n"};
  return plan(request);
}

Answer Lab::plan(const Request& request) {
  const Result<Value> plan = parseJSON(request.body);
  const Dictionary* fault = plan ? plan.value().dictionary() : nullptr;
  if (fault == nullptr) return {.status = 400, .body = "the body is no JSON object\n"};
  try {
    if (textAt(*fault, "server") == "dashboard")
      _dashboard.setFaults(*fault);
    else
      _faults.set(*fault);
  } catch (const tools::InputError& error) {
    return {.status = 400, .body = fmt::format("{}\n", error.what())};
  }
  if (_feed) showFaults();
  return {.status = 200, .body = "planned\n"};
}

Dictionary Lab::addresses() const {
  Dictionary addresses{{"root", _rootFolder},
                       {"storebags", localURL("https", _storebagServer, "")},
                       {"events", localURL("https", _reportServer, "/events")},
                       {"realtime", localURL("https", _reportServer, "/realtime")},
                       {"logData", localURL("https", _reportServer, "/logData")},
                       {"upload", localURL("https", _reportServer, "/upload")},
                       {"dashboard", fmt::format("127.0.0.1:{}", _dashboard.port())},
                       {"control", localURL("http", _controlServer, "/fault")},
                       {"received", _root.receivedFile()}};
  if (_page) addresses.set("web", fmt::format("http://localhost:{}/", _page->port()));
  return addresses;
}

}  // namespace corvid::lab

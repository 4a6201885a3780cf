// Why something does or does not report: one closed list of words, the same in the status, in
// metrics, in docs/reasons.md and in client libraries.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string_view>

namespace corvid {

enum class Reason : std::uint8_t {
  reporting,  // the only one that keeps nothing back
  // Of a connection that is closed.
  notEntitled,
  tooManyConnections,
  controlNotEntitled,
  // Of a session without backends.
  noSessionInfo,
  notConfigured,
  unknownClientType,
  storebagUnreachable,
  storebagUnverified,
  storebagMalformed,
  storebagOlder,
  noSectionForEnvironment,
  noBackendMade,
  // Of a backend.
  waitingForUserInfo,
  noEntryMatches,
  noConsent,
  countryNotListed,
  deviceNotListed,
  deviceExcluded,
  noFilters,
  noThreshold,
  sampledOut,
  noAddress,
  disabledByServer,
  parentLacksBackend,
  takesNoEvents,
  noAdaptor,
  // Of an event.
  incompleteMessage,
  batchFull,
  overLimit,
  notFlushed,
  unwritable,
  lostAtStop,
};

struct ReasonText {
  Reason reason;
  std::string_view word;
  // What is the case and what helps, a sentence each.
  std::string_view what;
  std::string_view remedy;
};

// In the order of the values.
inline constexpr std::array reasonTexts{
    ReasonText{Reason::reporting, "reporting", "Events are reported.", "Nothing needs to be done."},
    ReasonText{
        Reason::notEntitled, "notEntitled",
        "The connection's process is not entitled to report, so it was closed.",
        "Give its program com.halcyon.private.corvidd in a file of etc/corvid/entitlements.d."},
    ReasonText{Reason::tooManyConnections, "tooManyConnections",
               "There were too many connections, of the user or of all, or too few descriptors.",
               "Find the process that opens so many; `corvidctl sessions` lists who is connected."},
    ReasonText{
        Reason::controlNotEntitled, "controlNotEntitled",
        "The process may not use the control socket, so its connection was closed.",
        "Run the command as root, or give its program com.halcyon.private.corvidd.control in "
        "a file of etc/corvid/entitlements.d."},
    ReasonText{Reason::noSessionInfo, "noSessionInfo", "The client has not described itself yet.",
               "The client must set its session info before it starts its configuration or sends."},
    ReasonText{Reason::notConfigured, "notConfigured",
               "The client has described itself but has not started its configuration, or has no "
               "answer to that yet.",
               "The client must start its configuration; while a storebag is being fetched, wait."},
    ReasonText{Reason::unknownClientType, "unknownClientType",
               "No storebag belongs to the client's type.",
               "The client must give a client type that has a storebag, 5 to 17."},
    ReasonText{
        Reason::storebagUnreachable, "storebagUnreachable", "The storebag server gave no answer.",
        "Check network, name resolution and the server's certificate; `corvidctl status` "
        "shows the error and when the next attempt is due, `corvidctl refresh` makes it now."},
    ReasonText{
        Reason::storebagUnverified, "storebagUnverified",
        "The storebag is not signed, or not with a key of this device.",
        "Sign the storebag with the private key that belongs to the device's publicKey.der."},
    ReasonText{
        Reason::storebagMalformed, "storebagMalformed",
        "The server's answer is no storebag: no property list, or one without what it needs.",
        "Look at what the server sends; `corvidctl status` shows status and error."},
    ReasonText{Reason::storebagOlder, "storebagOlder",
               "The storebag's serial number is lower than one that was in force before.",
               "Publish the storebag with a higher serial number."},
    ReasonText{Reason::noSectionForEnvironment, "noSectionForEnvironment",
               "The storebag has no section for the device's environment.",
               "Add the section to the storebag, or set the preference environmentType."},
    ReasonText{Reason::noBackendMade, "noBackendMade",
               "Not one backend came of the storebag's section.",
               "Check the section's entries: names of backends, a list of clients, addresses."},
    ReasonText{Reason::waitingForUserInfo, "waitingForUserInfo",
               "The client said that it needs user info and has not given it; events are held.",
               "The client must pass its user info, with its client name."},
    ReasonText{Reason::noEntryMatches, "noEntryMatches",
               "No entry of the storebag is for this client and service name.",
               "Add an entry for the client's name and service name to the storebag."},
    ReasonText{Reason::noConsent, "noConsent",
               "The user has not allowed that diagnostics are submitted.",
               "Nothing, unless the user agrees: `corvidctl prefs` sets the consent."},
    ReasonText{
        Reason::countryNotListed, "countryNotListed",
        "The device's country is not in the entry's locale_whitelist, or that list is empty.",
        "Add the country to the entry; `corvidctl status` shows what this device's is."},
    ReasonText{Reason::deviceNotListed, "deviceNotListed",
               "The device's product family is not in the entry's device_whitelist.",
               "Add the product family to the entry; `corvidctl status` shows what this one's is."},
    ReasonText{Reason::deviceExcluded, "deviceExcluded",
               "The device's hardware type is in the entry's device_blacklist.",
               "Nothing, if that is meant; else take it from the list."},
    ReasonText{Reason::noFilters, "noFilters", "The storebag's entry has no list of filters.",
               "Give the entry \"filters\", an empty list where nothing is to be filtered."},
    ReasonText{Reason::noThreshold, "noThreshold",
               "The storebag's entry has no sampling threshold.",
               "Give the entry \"sampling_threshold\", 1 where every device reports."},
    ReasonText{Reason::sampledOut, "sampledOut",
               "The draw was above the sampling threshold: this session does not report.",
               "Nothing, if that is meant; else raise the entry's sampling_threshold."},
    ReasonText{Reason::noAddress, "noAddress", "There is no address to post to.",
               "Give the storebag's entry a \"post_url\"."},
    ReasonText{Reason::disabledByServer, "disabledByServer",
               "The collector answered with a status of 5xx; the session reports no more.",
               "Mend the collector; new sessions, and new states of this one, report again."},
    ReasonText{Reason::parentLacksBackend, "parentLacksBackend",
               "The session above in the chain has no such backend, so this one is off as well.",
               "Give the parent's entry the backend, or take the session out of the chain."},
    ReasonText{Reason::takesNoEvents, "takesNoEvents",
               "This backend has no path for events; others of the session may have.",
               "Nothing needs to be done."},
    ReasonText{Reason::noAdaptor, "noAdaptor",
               "There is no adaptor that takes events for the device's diagnostics service.",
               "Install the bundle, or mend it: the log says why it is not used."},
    ReasonText{Reason::incompleteMessage, "incompleteMessage",
               "The message has no category or no type.", "The client must give both, as numbers."},
    ReasonText{Reason::batchFull, "batchFull",
               "The event came when the batch of its category was full, and went with it.",
               "Raise the entry's event_threshold, or flush more often."},
    ReasonText{Reason::overLimit, "overLimit",
               "More events were held than there is memory for; the oldest were dropped.",
               "Let the client flush more often, or give what it waits for."},
    ReasonText{Reason::notFlushed, "notFlushed", "The batch was discarded without being posted.",
               "The session ended, or was configured anew, while it could not report."},
    ReasonText{Reason::unwritable, "unwritable",
               "The message cannot be written as JSON, or is too long.",
               "Look for the error line in the log; text must be UTF-8."},
    ReasonText{Reason::lostAtStop, "lostAtStop",
               "The daemon ended before the event had been posted.",
               "Give the daemon more time to stop (--stop-timeout), or mend the collector."},
};
inline constexpr std::size_t reasonCount = reasonTexts.size();

constexpr const ReasonText& textOf(Reason reason) {
  return reasonTexts[static_cast<std::size_t>(reason)];
}
constexpr std::string_view wordOf(Reason reason) { return textOf(reason).word; }

// Nothing for any other word.
constexpr std::optional<Reason> reasonOf(std::string_view word) {
  for (const ReasonText& text : reasonTexts)
    if (text.word == word) return text.reason;
  return std::nullopt;
}

}  // namespace corvid

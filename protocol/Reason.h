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
  // What the journal's entries of its log lines carry as MESSAGE_ID; never changes.
  std::string_view messageID;
  // What is the case and what helps, a sentence each.
  std::string_view what;
  std::string_view remedy;
};

// In the order of the values.
inline constexpr std::array reasonTexts{
    ReasonText{Reason::reporting, "reporting", "4c73457ad7da4c319f7c8ba0655b3eed",
               "Events are reported.", "Nothing needs to be done."},
    ReasonText{
        Reason::notEntitled, "notEntitled", "32042784f277456bb5b4116115605fe1",
        "The connection's process is not entitled to report, so it was closed.",
        "Give its program com.halcyon.private.corvidd in a file of etc/corvid/entitlements.d."},
    ReasonText{Reason::tooManyConnections, "tooManyConnections", "c8c194cb9c3d42b8934f6be1ef357249",
               "There were too many connections, of the user or of all, or too few descriptors.",
               "Find the process that opens so many; `corvidctl sessions` lists who is connected."},
    ReasonText{
        Reason::controlNotEntitled, "controlNotEntitled", "ed20c059eba6467d970ccec904cc1e16",
        "The process may not use the control socket, so its connection was closed.",
        "Run the command as root, or give its program com.halcyon.private.corvidd.control in "
        "a file of etc/corvid/entitlements.d."},
    ReasonText{Reason::noSessionInfo, "noSessionInfo", "2197e0f90fc349c4b21eecf7e39565ff",
               "The client has not described itself yet.",
               "The client must set its session info before it starts its configuration or sends."},
    ReasonText{Reason::notConfigured, "notConfigured", "6f15875983bc437d81c46329c390b064",
               "The client has described itself but has not started its configuration, or has no "
               "answer to that yet.",
               "The client must start its configuration; while a storebag is being fetched, wait."},
    ReasonText{Reason::unknownClientType, "unknownClientType", "f4e622ee5dad4eae95e5e2953a8fe027",
               "No storebag belongs to the client's type.",
               "The client must give a client type that has a storebag, 5 to 17."},
    ReasonText{
        Reason::storebagUnreachable, "storebagUnreachable", "d6658598d17e4c84bfe73e276bdd411c",
        "The storebag server gave no answer.",
        "Check network, name resolution and the server's certificate; `corvidctl status` "
        "shows the error and when the next attempt is due, `corvidctl refresh` makes it now."},
    ReasonText{
        Reason::storebagUnverified, "storebagUnverified", "44c4f514eeac41a88eb12c77acf00885",
        "The storebag is not signed, or not with a key of this device.",
        "Sign the storebag with the private key that belongs to the device's publicKey.der."},
    ReasonText{
        Reason::storebagMalformed, "storebagMalformed", "728c3bd4dea448f884da6b8c7994f7c9",
        "The server's answer is no storebag: no property list, or one without what it needs.",
        "Look at what the server sends; `corvidctl status` shows status and error."},
    ReasonText{Reason::storebagOlder, "storebagOlder", "410c6c12411b4d9a9ca2f518d04349ee",
               "The storebag's serial number is lower than one that was in force before.",
               "Publish the storebag with a higher serial number."},
    ReasonText{Reason::noSectionForEnvironment, "noSectionForEnvironment",
               "0a26707eeba4474badfb0b11d8562202",
               "The storebag has no section for the device's environment.",
               "Add the section to the storebag, or set the preference environmentType."},
    ReasonText{Reason::noBackendMade, "noBackendMade", "52f29f8f717444a7976aa0a1d89b1c8c",
               "Not one backend came of the storebag's section.",
               "Check the section's entries: names of backends, a list of clients, addresses."},
    ReasonText{Reason::waitingForUserInfo, "waitingForUserInfo", "00a587424c304c8a9aebd6273700bbb4",
               "The client said that it needs user info and has not given it; events are held.",
               "The client must pass its user info, with its client name."},
    ReasonText{Reason::noEntryMatches, "noEntryMatches", "7b9102d2fad448eb8cec1125e20b7b1d",
               "No entry of the storebag is for this client and service name.",
               "Add an entry for the client's name and service name to the storebag."},
    ReasonText{Reason::noConsent, "noConsent", "e8482244b139488fb44fdcb24fb6d4c4",
               "The user has not allowed that diagnostics are submitted.",
               "Nothing, unless the user agrees: `corvidctl prefs` sets the consent."},
    ReasonText{
        Reason::countryNotListed, "countryNotListed", "962f99518c194fe2941ada6c37e2eecf",
        "The device's country is not in the entry's locale_whitelist, or that list is empty.",
        "Add the country to the entry; `corvidctl status` shows what this device's is."},
    ReasonText{Reason::deviceNotListed, "deviceNotListed", "45ec2906fa1944dcb1330e6dbf288f13",
               "The device's product family is not in the entry's device_whitelist.",
               "Add the product family to the entry; `corvidctl status` shows what this one's is."},
    ReasonText{Reason::deviceExcluded, "deviceExcluded", "c9df7a4a047043ff84e15488a6548ca1",
               "The device's hardware type is in the entry's device_blacklist.",
               "Nothing, if that is meant; else take it from the list."},
    ReasonText{Reason::noFilters, "noFilters", "e0dc3f9a59e640819b2ccf8563dd8caf",
               "The storebag's entry has no list of filters.",
               "Give the entry \"filters\", an empty list where nothing is to be filtered."},
    ReasonText{Reason::noThreshold, "noThreshold", "8c47dc9e21154dc2baeea985dc727474",
               "The storebag's entry has no sampling threshold.",
               "Give the entry \"sampling_threshold\", 1 where every device reports."},
    ReasonText{Reason::sampledOut, "sampledOut", "19fd300ecbd34a3da03c51fec4c396a8",
               "The draw was above the sampling threshold: this session does not report.",
               "Nothing, if that is meant; else raise the entry's sampling_threshold."},
    ReasonText{Reason::noAddress, "noAddress", "36396d3f717349f8bc43e3f5d9f6a7c7",
               "There is no address to post to.", "Give the storebag's entry a \"post_url\"."},
    ReasonText{Reason::disabledByServer, "disabledByServer", "3aae5a99fa17455b9510d271be92db8a",
               "The collector answered with a status of 5xx; the session reports no more.",
               "Mend the collector; new sessions, and new states of this one, report again."},
    ReasonText{Reason::parentLacksBackend, "parentLacksBackend", "5ed8ccc42dae4f3c9d8446c00ecc2c10",
               "The session above in the chain has no such backend, so this one is off as well.",
               "Give the parent's entry the backend, or take the session out of the chain."},
    ReasonText{Reason::takesNoEvents, "takesNoEvents", "4c0ca843e2604bbfa59b38146999d5dd",
               "This backend has no path for events; others of the session may have.",
               "Nothing needs to be done."},
    ReasonText{Reason::noAdaptor, "noAdaptor", "724400a850f4453c8c3e02d89004c355",
               "There is no adaptor that takes events for the device's diagnostics service.",
               "Install the bundle, or mend it: the log says why it is not used."},
    ReasonText{Reason::incompleteMessage, "incompleteMessage", "f7328681c2324766986049f28541f8f3",
               "The message has no category or no type.", "The client must give both, as numbers."},
    ReasonText{Reason::batchFull, "batchFull", "68c0eb772dbc4abfa1d29d84da86543c",
               "The event came when the batch of its category was full, and went with it.",
               "Raise the entry's event_threshold, or flush more often."},
    ReasonText{Reason::overLimit, "overLimit", "7117cd8cc8d84975aafca4a608103f0b",
               "More events were held than there is memory for; the oldest were dropped.",
               "Let the client flush more often, or give what it waits for."},
    ReasonText{Reason::notFlushed, "notFlushed", "05c736556eea46dca6a0cd84bb3a53b0",
               "The batch was discarded without being posted.",
               "The session ended, or was configured anew, while it could not report."},
    ReasonText{Reason::unwritable, "unwritable", "db023eab39d840cc90f35aa52a85a44b",
               "The message cannot be written as JSON, or is too long.",
               "Look for the error line in the log; text must be UTF-8."},
    ReasonText{Reason::lostAtStop, "lostAtStop", "f443e53f4b4043ab8eb46b89835efc11",
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

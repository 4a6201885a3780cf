@0xc5025268cdb85b8f;
# What crosses the socket between a client library and the daemon: Cap'n Proto RPC over a Unix
# stream socket. The bootstrap object of the daemon's side is a ClientSession, that of the client's
# side a ClientSessionReply. On the control socket it is a Control.
#
# A field or union member is only ever added, with the next free number, so that both sides may be
# of different age. An absent object is a null pointer; an empty list is present.

using Cxx = import "/capnp/c++.capnp";
$Cxx.namespace("corvid::wire");

struct PropertyValue {
  # One value of a property list. Text is UTF-8. A value that is an entry of a dictionary carries
  # its key, so that a dictionary is one flat list.

  union {
    absent @0 :Void;
    int64 @1 :Int64;
    boolean @2 :Bool;
    float64 @3 :Float64;
    date @4 :Float64;
    # Seconds since 1970-01-01 00:00 UTC.
    text @5 :Text;
    data @6 :Data;
    list @7 :List(PropertyValue);
    dictionary @8 :List(PropertyValue);
  }
  key @9 :Text;
}

struct Message {
  # One event on its way to the session.

  replyWanted @0 :Bool;
  # False: the client gave no callback, the session sees none.
  union {
    event :group {
      category @1 :UInt16;
      type @2 :UInt16;
      payload @3 :List(PropertyValue);
    }
    dictionary @4 :List(PropertyValue);
  }
  reasonWanted @5 :Bool;
  # Whether the result is to tell what became of the event.
}

struct TextResult {
  # The outcome of a call that answers with a text or with nothing.

  union {
    unanswered @0 :Void;
    # No reply was wanted, or the daemon dropped the reply.
    none @1 :Void;
    text @2 :Text;
    dropped @3 :Dropped;
    # Only where the call wants a reason.
  }
  isReasoned @4 :Bool;
  # The call wanted a reason and the daemon knows of such: without one, the event was taken.
}

struct Dropped {
  # A message that nobody took.

  reason @0 :Text;
  # A word of docs/reasons.md.
  text @1 :Text;
  # What is answered besides; absent where that is nothing.
}

struct BackendReport {
  # Words as in docs/reasons.md and in `corvidctl sessions`.

  name @0 :Text;
  state @1 :Text;
  reason @2 :Text;
}

struct StatesReport {
  # Which backends of a session report, and why the others do not.

  states @0 :List(PropertyValue);
  # The names of those that do, as in StatesAnswer.
  reason @1 :Text;
  # Why the session has no backends; absent where it has.
  backends @2 :List(BackendReport);
}

struct StatesAnswer {
  answered @0 :Bool;
  union {
    states @1 :List(PropertyValue);
    report @2 :StatesReport;
    # Instead of the states, where the call wants it.
  }
}

struct Error {
  domain @0 :Text;
  code @1 :Int64;
  description @2 :Text;
}

struct Delivery {
  # A message for the client's aggregation block. With everything absent or zero it tells the
  # client's aggregator to shut down.

  message @0 :List(PropertyValue);
  timestamp @1 :Float64;
  category @2 :UInt16;
  type @3 :UInt16;
  payload @4 :List(PropertyValue);
}

interface FileGrant {
  # One regular file that the client has opened for reading. The descriptor travels with the
  # capability; whoever gets it holds the right to read that file, under no name.

  remove @0 ();
  # Removes the file from the folder that it was opened in, if it still stands there under its name.
  # The client does that with its own rights.
}

interface ClientSession {
  # The calls of one connection run one after the other in the order in which they were made. Each
  # returns when it has been answered, when its reply was dropped unanswered, or, where no reply is
  # wanted, when the daemon has finished with it.

  setSessionInfo @0 (sessionInfo :List(PropertyValue), userInfo :List(PropertyValue),
                     frameworksToCheck :List(PropertyValue), hasAggregationBlock :Bool,
                     changesWanted :Bool);
  # With `changesWanted` the client hears of later changes of its states; see ClientSessionReply.

  startConfig @1 (replyWanted :Bool, reportWanted :Bool) -> StatesAnswer;

  fetchStates @2 (replyWanted :Bool, userInfo :List(PropertyValue), reportWanted :Bool)
              -> StatesAnswer;

  fetchDisplayURL @3 (replyWanted :Bool) -> (url :TextResult);

  sendMessages @4 (messages :List(Message)) -> (results :List(TextResult));
  # What waited in the client library travels together. `results` has one element a message, in
  # order.

  flush @5 (replyWanted :Bool) -> (result :TextResult, error :Error);

  finish @6 (replyWanted :Bool, reasonWanted :Bool) -> (result :TextResult);

  uploadFile @7 (replyWanted :Bool, fileURL :Text, extensionToken :Data, file :FileGrant)
             -> (answered :Bool, success :Bool);
  # `file` grants the daemon the file for the length of the call; the daemon makes up a token for it.
  # Without one, `extensionToken` stands for something that nobody granted.

  uploadLogData @8 (replyWanted :Bool, logData :List(PropertyValue))
                -> (answered :Bool, success :Bool, error :Error);

  sendSingleMessage @9 (replyWanted :Bool, sessionInfo :List(PropertyValue),
                        userInfo :List(PropertyValue), category :UInt16, type :UInt16,
                        payload :List(PropertyValue), reasonWanted :Bool)
                    -> (result :TextResult);
}

interface ClientSessionReply {
  sendMessagesToClient @0 (deliveries :List(Delivery));
  # Returns when the client library has taken the deliveries in, not when the block has run.

  statesChanged @1 (report :StatesReport);
  # The session's states or reasons are others than the client was told last, in an answer or here.
  # Only for a client that wished it, one at a time, and what changes meanwhile travels together.
}

interface Control {
  # What the daemon does and why, for whoever may look. Nothing here waits for a server or a client.
  # JSON stands in texts, one object or array each; docs/operating.md describes them.

  status @0 () -> (json :Text);

  sessions @1 (session :UInt64) -> (json :Text);
  # Of all sessions, or of the one with that number; 0: all.

  explain @2 (session :UInt64, last :UInt32) -> (lines :List(Text));
  # What became of the latest events and posts, oldest first; 0: of all sessions, all that is known.

  watch @3 (session :UInt64, payload :Bool) -> (refusal :Text);
  # From now on each decision is kept for nextLines. Once a connection. `refusal` is absent where the
  # wish is granted; records are for user 0 only.

  nextLines @4 () -> (lines :List(Text));
  # What was decided since the last call, as soon as there is something; nothing after a second
  # without.

  metrics @5 () -> (text :Text);

  refresh @6 (clientType :Int32, states :Bool) -> (touched :List(Text));
  # The next request for the storebag of the client type (-1: of any) fetches it. With `states` every
  # session computes its states anew. What was touched, by name.

  setLogLevel @7 (level :Int32, seconds :UInt32) -> ();
  # As in syslog. After so many seconds the level from before comes back; 0: it stays.

  storebag @8 (name :Text) -> (propertyList :Data, refusal :Text);
  # The section in force of the storebag with that name; absent where there is none. For user 0 only:
  # `refusal` is absent where the wish is granted.
}

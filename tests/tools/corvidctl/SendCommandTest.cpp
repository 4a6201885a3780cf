// The commands for people that talk to the daemon: send, states and upload.
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>

#include "base/Reading.h"
#include "tests/support/ToolProcess.h"
#include "tests/tools/corvidctl/SessionProcess.h"

namespace corvid {
namespace {

class Send : public CtlFixture {
 protected:
  void serveStates(
      std::optional<Array> states,
      std::function<void(RecordingSession&)> prepare = [](RecordingSession& session) {
        session.onFlush = [](FlushReply reply) { reply(std::nullopt, std::nullopt); };
      }) {
    serve([states = std::move(states), prepare = std::move(prepare)](RecordingSession& session,
                                                                     auto&) {
      session.states = states;
      prepare(session);
    });
  }
  ToolResult send(std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(), {"send", "--client-type", "5"});
    return ctl(std::move(arguments));
  }
  std::vector<std::string> names() {
    std::vector<std::string> names;
    for (const auto& call : calls()) names.push_back(call.name);
    return names;
  }
  // Status 1, nothing on standard output that claims success, and this reason.
  static void expectFailure(const ToolResult& result, const std::string& reason) {
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.errors, "corvidctl: " + reason + "\n");
    EXPECT_EQ(result.output.find("flush"), std::string::npos) << result.output;
  }
};

TEST_F(Send, DescribesASessionSendsOneEventAndFlushes) {
  serveStates(Array{"httpPost", "metrix"});
  const ToolResult result =
      send({"--client-version", "3", "--session-id", "42", "--client-name", "Pl\u00e4yer",
            "--service-name", "Film", "--category", "7", "--type", "2", "--flag", "2", "n=5"});
  EXPECT_EQ(result.status, 0) << result.errors;
  EXPECT_EQ(result.errors, "");
  EXPECT_EQ(result.output,
            "reporting through: httpPost metrix\nsent:\nsent 0\n"
            "flushed: the backends have handed over what they held\n");
  EXPECT_EQ(names(), (std::vector<std::string>{"setSessionInfo", "startConfig",
                                               "sendMessageWithDictionary", "flush"}));
  const auto made = calls();
  EXPECT_EQ(made[0].dictionary, (Dictionary{{"ClientType", 5},
                                            {"SessionID", 42},
                                            {"ClientVersion", 3},
                                            {"BatchEvent", true},
                                            {"RequireUserInfo", true}}));
  EXPECT_EQ(made[0].userInfo,
            (Dictionary{{"_clientName", "Pl\u00e4yer"}, {"_serviceName", "Film"}}));
  EXPECT_EQ(
      made[2].dictionary,
      (Dictionary{{"Category", 7}, {"Type", 2}, {"Flag", 2}, {"Payload", Dictionary{{"n", 5}}}}));
}

TEST_F(Send, WhatIsNotGivenHasADefault) {
  serveStates(Array{"httpPost"});
  EXPECT_EQ(send({}).status, 0);
  const auto made = calls();
  EXPECT_EQ(
      made[0].dictionary,
      (Dictionary{
          {"ClientType", 5}, {"SessionID", 1}, {"BatchEvent", true}, {"RequireUserInfo", false}}));
  EXPECT_EQ(made[0].userInfo, std::nullopt);
  EXPECT_EQ(made[2].dictionary,
            (Dictionary{{"Category", 1}, {"Type", 0}, {"Flag", 0}, {"Payload", Dictionary{}}}));
}

TEST_F(Send, PayloadValuesAreJSONOrText) {
  serveStates(Array{"httpPost"});
  EXPECT_EQ(send({"--realtime", "colour=blue", "n=-5", "x=1.5", "on=true", "list=[1,2]", "code=007",
                  "odd=nan", "e=", "eq=a=b", "q=\"5\"", "\u00fc=\u00df \"x\"", "at={\"$date\":7}",
                  "--", "--dash=1"})
                .status,
            0);
  const Dictionary message = calls()[2].dictionary;
  EXPECT_EQ(*message.find("Flag"), Value(1));
  EXPECT_EQ(*message.find("Payload"), Value(Dictionary{{"colour", "blue"},
                                                       {"n", -5},
                                                       {"x", 1.5},
                                                       {"on", true},
                                                       {"list", Array{1, 2}},
                                                       {"code", "007"},
                                                       {"odd", "nan"},
                                                       {"e", ""},
                                                       {"eq", "a=b"},
                                                       {"q", "5"},
                                                       {"\u00fc", "\u00df \"x\""},
                                                       {"at", Date{7}},
                                                       {"--dash", 1}}));
}

TEST_F(Send, WithoutAStorebagNothingIsSent) {
  serveStates(std::nullopt);
  expectFailure(
      send({}),
      "nothing reports: the daemon has no storebag for this client type (corvidctl sessions, "
      "run as root, says why)");
  EXPECT_EQ(names(), (std::vector<std::string>{"setSessionInfo", "startConfig"}));
}

TEST_F(Send, WithoutAReportingBackendNothingIsSent) {
  serveStates(Array{});
  expectFailure(
      send({}),
      "nothing reports: no backend of the storebag accepts this session (corvidctl sessions, "
      "run as root, says why)");
  EXPECT_EQ(names(), (std::vector<std::string>{"setSessionInfo", "startConfig"}));
}

TEST_F(Send, AFlushThatFailsIsAFailure) {
  serveStates(Array{"httpPost"}, [](RecordingSession& session) {
    session.onFlush = [](FlushReply reply) {
      reply("text", CorvidError{"some.domain", 503, "server refused"});
    };
  });
  expectFailure(send({}), "the flush failed: server refused (some.domain 503)");
}

TEST_F(Send, AFlushThatIsNotAnsweredIsAFailure) {
  serveStates(Array{"httpPost"},
              [](RecordingSession& session) { session.onFlush = [](FlushReply) {}; });
  expectFailure(send({}), "the daemon did not answer the flush");
}

TEST_F(Send, NothingToFlushIsSaidAndNoFailure) {
  serveStates(Array{"httpPost"}, [](RecordingSession& session) {
    session.onFlush = [](FlushReply reply) {
      reply(std::nullopt, CorvidError::of(-1, "Nothing to flush"));
    };
  });
  const ToolResult result = send({"--realtime"});
  EXPECT_EQ(result.status, 0);
  EXPECT_NE(result.output.find("\nnothing was left to flush: "), std::string::npos)
      << result.output;
}

TEST_F(Send, AConnectionLostInTheFlushIsAFailure) {
  std::optional<FlushReply> kept;  // so that the flush is still under way
  serve([&](RecordingSession& session, const std::shared_ptr<Connection>& connection) {
    session.states = Array{"httpPost"};
    session.onFlush = [&kept, weak = std::weak_ptr(connection)](FlushReply reply) {
      kept = std::move(reply);
      weak.lock()->invalidate("the test says so");
    };
  });
  expectFailure(send({}),
                "the daemon closed the connection (it ended, or this user is not entitled; its log "
                "says why)");
  stop();
}

TEST_F(Send, AClientThatIsNotEntitledIsToldSo) {
  delegate->refuse = true;
  serve();
  expectFailure(send({}),
                "the daemon closed the connection (it ended, or this user is not entitled; its log "
                "says why)");
}

TEST_F(Send, WithoutADaemonTheSocketIsNamed) {
  expectFailure(send({}), "no daemon serves " + path +
                              " (corvidd does not run, or runs with another --root)");
}

TEST_F(Send, TextThatIsNotUTF8IsRefused) {
  serveStates(Array{"httpPost"});
  expectFailure(send({"a=\xff"}), "text is not UTF-8");
}

TEST_F(Send, StatesNamesTheBackendsThatReport) {
  serveStates(Array{"httpPost", "wattbook"});
  const ToolResult result = ctl({"states", "--client-type", "5", "--client-name", "Player"});
  EXPECT_EQ(result.status, 0) << result.errors;
  EXPECT_EQ(result.output, "reporting through: httpPost wattbook\n");
  EXPECT_EQ(names(), (std::vector<std::string>{"setSessionInfo", "startConfig"}));
}

TEST_F(Send, StatesFailsWhereNothingReports) {
  serveStates(Array{});
  expectFailure(
      ctl({"states", "--client-type", "5"}),
      "nothing reports: no backend of the storebag accepts this session (corvidctl sessions, "
      "run as root, says why)");
}

class Upload : public Send {
 protected:
  ToolResult upload(std::vector<std::string> files) {
    files.insert(files.begin(), {"upload", "--client-type", "5"});
    return ctl(std::move(files));
  }
  // A daemon whose server confirms what it gets.
  void serveUploads() {
    serveStates(Array{"uploadServer"}, [this](RecordingSession& session) {
      session.onUpload = [this](const std::string& token) { tokens.consume(token).remove(); };
    });
  }
  std::string file(const std::string& name) {
    const std::string made = folder.path() + "/" + name;
    std::ofstream(made) << "content";
    return made;
  }
};

TEST_F(Upload, UploadsEachFile) {
  serveUploads();
  const std::string first = file("a b");
  const std::string second = file("\u00fc");
  const ToolResult result = upload({first, second});
  EXPECT_EQ(result.status, 0) << result.errors;
  const auto linesOf = [](const std::string& name) {
    return "uploading " + name + " (7 bytes)\nuploaded " + name +
           "; the server confirmed it, so the file is gone\n";
  };
  EXPECT_EQ(result.output, linesOf(first) + linesOf(second));
  EXPECT_EQ(names(), (std::vector<std::string>{"setSessionInfo", "startConfig", "uploadFile",
                                               "uploadFile"}));
  EXPECT_EQ(calls()[2].text, "file://" + folder.path() + "/a%20b");
}

TEST_F(Upload, AFileThatTheServerDoesNotConfirmStaysAndIsTold) {
  serveStates(Array{"uploadServer"});
  const std::string first = file("first");
  const std::string second = file("second");
  const ToolResult result = upload({first, second});
  EXPECT_EQ(result.status, 1);
  EXPECT_EQ(result.errors, "");
  EXPECT_NE(result.output.find("sent " + first +
                               ", but the server did not confirm it; the file "
                               "stays\nuploading " +
                               second),
            std::string::npos)
      << result.output;
  EXPECT_EQ(names().size(), 4u);
}

TEST_F(Upload, AFileThatTheDaemonRefusesIsAFailure) {
  serveStates(Array{"uploadServer"},
              [](RecordingSession& session) { session.uploadSucceeds = false; });
  const std::string first = file("first");
  expectFailure(upload({first, file("second")}),
                first + " was not uploaded (the daemon's log says why)");
  EXPECT_EQ(names().size(), 3u);
}

TEST_F(Send, ClientTypesHaveNames) {
  serveStates(Array{"httpPost"});
  for (const char* name : {"lumen", "Lumen", "ZH", "5"})
    EXPECT_EQ(ctl({"states", "--client-type", name}).status, 0) << name;
  for (const auto& call : calls())
    if (call.name == "setSessionInfo") {
      EXPECT_EQ(integerAt(call.dictionary, "ClientType"), 5);
    }
}

TEST_F(Upload, WhatNoDaemonTakesIsToldBeforeItIsAsked) {
  const std::string link = folder.path("link");
  ASSERT_EQ(symlink(file("there").c_str(), link.c_str()), 0);
  const std::string pipe = folder.path("pipe");
  ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
  const std::string large = file("large");
  ASSERT_EQ(truncate(large.c_str(), (std::int64_t{256} << 20) + 1), 0);
  // Nobody serves, so that asking would be another failure.
  expectFailure(upload({file("there"), "/etc"}), "cannot upload /etc: it is a folder");
  expectFailure(upload({link}),
                "cannot upload " + link + ": it is a link; name the file that it leads to");
  expectFailure(upload({pipe}), "cannot upload " + pipe + ": it is no regular file");
  expectFailure(upload({large}), "cannot upload " + large + ": it is larger than 256 MiB");
}

TEST_F(Upload, AMissingFileIsNamedBeforeAnythingIsSent) {
  serveStates(Array{"uploadServer"});
  expectFailure(upload({file("there"), "/nonexistent/x"}),
                "cannot read /nonexistent/x: No such file or directory");
  EXPECT_TRUE(delegate->accepted.empty());
}

TEST_F(Upload, WithoutAReportingBackendNothingIsUploaded) {
  serveStates(Array{});
  EXPECT_EQ(upload({file("a")}).status, 1);
  EXPECT_EQ(names(), (std::vector<std::string>{"setSessionInfo", "startConfig"}));
}

}  // namespace
}  // namespace corvid

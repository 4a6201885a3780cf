// The manual of the client library, section 3, beside the headers that it describes.
#include <gtest/gtest.h>

#include <cctype>
#include <filesystem>
#include <map>
#include <regex>
#include <set>
#include <string>
#include <vector>

#include "protocol/Reason.h"
#include "tests/support/Scratch.h"
#include "tests/support/ToolProcess.h"

namespace corvid {
namespace {

namespace fs = std::filesystem;

// Of a declaration: without blanks that say nothing.
std::string normalised(const std::string& text) {
  const auto isWord = [](char c) {
    return std::isalnum(static_cast<unsigned char>(c)) || c == '_';
  };
  std::string result;
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (!std::isspace(static_cast<unsigned char>(text[i]))) {
      result += text[i];
      continue;
    }
    while (i + 1 < text.size() && std::isspace(static_cast<unsigned char>(text[i + 1]))) ++i;
    if (!result.empty() && isWord(result.back()) && i + 1 < text.size() && isWord(text[i + 1]))
      result += ' ';
  }
  return result;
}

std::string headers() {
  std::string text;
  for (const char* const name : {"corvid.h", "testing.h"})
    text += contentOf(std::string(CORVID_CLIENT_HEADERS) + "/corvid/" + name);
  for (std::size_t begin = 0; (begin = text.find("/*")) != text.npos;)
    text.erase(begin, text.find("*/", begin) + 2 - begin);
  return text;
}

// Prototypes by the names of their functions.
using Prototypes = std::map<std::string, std::string>;

Prototypes ofHeaders() {
  Prototypes prototypes;
  const std::string text = headers();
  const std::regex declaration(R"(CORVID_API\s+([^;()]*\b(corvid_\w+)\([^;]*\);))");
  for (std::sregex_iterator at(text.begin(), text.end(), declaration), end; at != end; ++at)
    prototypes[(*at)[2]] = normalised((*at)[1]);
  return prototypes;
}

// The words behind a macro, of which those in quotes are one.
std::vector<std::string> wordsOf(const std::string& line) {
  std::vector<std::string> words;
  const std::regex word(R"re("([^"]*)"|(\S+))re");
  for (std::sregex_iterator at(line.begin(), line.end(), word), end; at != end; ++at)
    words.push_back((*at)[1].matched ? (*at)[1] : (*at)[2]);
  words.erase(words.begin());
  return words;
}

struct Page {
  std::string file;
  std::set<std::string> names;  // of section NAME
  Prototypes prototypes;        // of section SYNOPSIS
  std::string shown;            // literally, in section DESCRIPTION
};

Page pageAt(const fs::path& path) {
  Page page{path.filename(), {}, {}, {}};
  std::string section, type, name, arguments;
  const auto declare = [&] {
    page.prototypes[name] = normalised(type + " " + name + "(" + arguments + ");");
  };
  bool isLiteral = false;
  for (const std::string& line : linesOf(contentOf(path))) {
    if (line.starts_with(".Sh ")) section = line.substr(4);
    if (line.starts_with(".Bd ")) isLiteral = true;
    if (line == ".Ed") isLiteral = false;
    if (section == "NAME" && line.starts_with(".Nm ")) page.names.insert(wordsOf(line).front());
    if (section == "DESCRIPTION" && isLiteral && !line.starts_with(".")) page.shown += line + "\n";
    if (section != "SYNOPSIS") continue;
    if (line.starts_with(".Ft ")) {
      type.clear();
      for (const std::string& word : wordsOf(line)) type += word + " ";
    } else if (line.starts_with(".Fn ") || line.starts_with(".Fo ")) {
      const std::vector<std::string> words = wordsOf(line);
      name = words.front();
      arguments.clear();
      for (std::size_t i = 1; i < words.size(); ++i) arguments += (i > 1 ? "," : "") + words[i];
      if (line.starts_with(".Fn ")) declare();
    } else if (line.starts_with(".Fa ")) {
      for (const std::string& word : wordsOf(line))
        arguments += (arguments.empty() ? "" : ",") + word;
    } else if (line == ".Fc") {
      declare();
    }
  }
  return page;
}

std::set<std::string> callbackTypesIn(const std::string& text) {
  std::set<std::string> types;
  const std::regex declaration(R"(typedef void \(\*[^;]*;)");
  for (std::sregex_iterator at(text.begin(), text.end(), declaration), end; at != end; ++at)
    types.insert(normalised(at->str()));
  return types;
}

std::vector<Page> allPages() {
  std::vector<Page> pages;
  for (const auto& file : fs::directory_iterator(CORVID_MAN_FOLDER))
    if (file.path().extension() == ".3") pages.push_back(pageAt(file.path()));
  return pages;
}

TEST(Manual, HasOnePageForEachFunctionOfTheHeaders) {
  std::map<std::string, int> pages;
  for (const Page& page : allPages()) {
    EXPECT_TRUE(page.names.contains(fs::path(page.file).stem())) << page.file;
    for (const std::string& name : page.names) ++pages[name];
  }
  EXPECT_EQ(pages.extract("corvid").mapped(), 1);  // the overview
  const Prototypes functions = ofHeaders();
  EXPECT_GT(functions.size(), 80u);
  for (const auto& [name, prototype] : functions) EXPECT_EQ(pages[name], 1) << name;
  for (const auto& [name, count] : pages) EXPECT_TRUE(functions.contains(name)) << name;
}

TEST(Manual, SaysOfEachFunctionWhatTheHeadersSay) {
  Prototypes shown;
  for (const Page& page : allPages())
    for (const auto& [name, prototype] : page.prototypes) {
      EXPECT_TRUE(page.names.contains(name)) << page.file << ": " << name;
      shown[name] = prototype;
    }
  const Prototypes functions = ofHeaders();
  EXPECT_EQ(shown.size(), functions.size());
  for (const auto& [name, prototype] : functions) EXPECT_EQ(shown[name], prototype);
}

TEST(Manual, ShowsEveryTypeOfCallbackAsTheHeadersDo) {
  std::set<std::string> shown;
  for (const Page& page : allPages()) shown.merge(callbackTypesIn(page.shown));
  EXPECT_EQ(shown, callbackTypesIn(headers()));
  EXPECT_GT(shown.size(), 4u);
}

// The words that the pattern's first group gives.
std::set<std::string> namesIn(const std::string& text, const std::string& pattern) {
  std::set<std::string> names;
  const std::regex named(pattern);
  for (std::sregex_iterator at(text.begin(), text.end(), named), end; at != end; ++at)
    names.insert((*at)[1]);
  return names;
}
std::string manualPage(const std::string& name) {
  return contentOf(std::string(CORVID_MAN_FOLDER) + "/" + name + ".3");
}
std::string guide() { return contentOf(std::string(CORVID_DOCS_FOLDER) + "/client.md"); }

TEST(Manual, NamesEveryKeyAndTheGuideItsTextToo) {
  const std::string text = headers();
  const std::string pages =
      manualPage("corvid_session_start_config") + manualPage("corvid_session_send_message");
  const std::set<std::string> keys = namesIn(text, R"(#define (CORVID_KEY_\w+ "\w+"))");
  EXPECT_EQ(keys.size(), 11u);
  const std::string guide = corvid::guide();
  for (const std::string& key : keys) {
    const std::string name = key.substr(0, key.find(' '));
    const std::string word = key.substr(name.size() + 2, key.size() - name.size() - 3);
    EXPECT_NE(guide.find("| `" + name + "` `" + word + "` |"), guide.npos) << key;
    EXPECT_NE(pages.find(name), pages.npos) << key;
  }
}

TEST(Manual, NamesEveryResultCode) {
  const std::set<std::string> codes = namesIn(headers(), R"(CORVID_ERROR_(\w+) = )");
  EXPECT_EQ(codes.size(), 15u);
  EXPECT_EQ(namesIn(manualPage("corvid"), R"(\.It Dv CORVID_ERROR_(\w+))"), codes);
  const std::string text = guide();
  const std::string table = text.substr(text.find("## Result codes"));
  for (const std::string& code : codes) EXPECT_NE(table.find("`" + code + "`"), table.npos) << code;
}

TEST(Manual, NamesEveryReasonThatAProgramIsTold) {
  const std::string page = manualPage("corvid_states_reason") + " ";
  for (const ReasonText& text : reasonTexts) {
    const bool isTold =
        text.reason != Reason::notEntitled && text.reason != Reason::tooManyConnections &&
        text.reason != Reason::controlNotEntitled && text.reason != Reason::lostAtStop;
    const std::regex word("[ \n]" + std::string(text.word) + "[ \n]");
    EXPECT_EQ(std::regex_search(page, word), isTold) << text.word;
  }
}

}  // namespace
}  // namespace corvid

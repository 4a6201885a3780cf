// The manual of the client library, section 3, beside the headers that it describes.
#include <gtest/gtest.h>

#include <cctype>
#include <filesystem>
#include <map>
#include <regex>
#include <set>
#include <string>
#include <vector>

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

}  // namespace
}  // namespace corvid

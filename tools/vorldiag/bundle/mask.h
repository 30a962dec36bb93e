// Replaces what tells one computer or person from another. Equal values get equal words, in every
// text that goes through the same object.
#pragma once

#include <map>
#include <string>
#include <string_view>
#include <vector>

class Mask {
 public:
  // A value to be replaced wherever it stands, also within a longer word, with or without its
  // hyphens and colons, in any letters. `kind` is the word that stands for it: "serial". Blanks
  // around it do not count; one of fewer than four other characters is left as it is.
  void AddValue(const std::string& kind, const std::string& value);

  // A name to be replaced where it stands as a word.
  void AddName(const std::string& kind, const std::string& name);

  // `text` (UTF-8) with "[serial-1]" and the like. Besides what was added: every UUID, every number
  // of 32 hexadecimal digits, every network address with its separators, every account's SID, and
  // the names of users' folders.
  std::string Apply(std::string_view text);

 private:
  struct Secret {
    std::wstring text;  // capital letters
    std::string token;
    bool isName;
  };

  const std::string& TokenOf(const std::string& kind, const std::wstring& text);
  void Add(const std::string& kind, const std::wstring& text, bool isName);
  const Secret* FindSecret(std::wstring_view capitals, std::size_t at) const;

  std::map<std::wstring, std::string> m_tokens;  // of texts without separators, capitals
  std::map<std::string, int> m_counts;           // by kind
  std::vector<Secret> m_secrets;                 // the longest first
};

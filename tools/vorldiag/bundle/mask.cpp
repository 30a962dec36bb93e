#include "tools/vorldiag/bundle/mask.h"

#include <algorithm>
#include <iterator>

#include "support/windows_api.h"
#include "tools/vorldiag/text/utf8.h"

namespace {

// Less tells no computer from others, and would be found in every time and number.
constexpr std::size_t kShortestValue = 4;

// Windows pads serial numbers.
std::string_view WithoutBlanks(std::string_view text) {
  const std::size_t begin = std::min(text.find_first_not_of(' '), text.size());
  text.remove_prefix(begin);
  return text.substr(0, text.find_last_not_of(' ') + 1);
}

std::wstring Capitals(const std::wstring& text) {
  std::wstring capitals(text.size(), L'\0');
  const int length = static_cast<int>(text.size());
  if (length != 0 && LCMapStringW(LOCALE_INVARIANT, LCMAP_UPPERCASE, text.data(), length,
                                  capitals.data(), length) != length) {
    return text;
  }
  return capitals;
}

// Beyond ASCII nothing belongs to a word: better too much is replaced than too little.
bool IsWordCharacter(wchar_t character) {
  return character == L'_' || (character >= L'0' && character <= L'9') ||
         (character >= L'A' && character <= L'Z') || (character >= L'a' && character <= L'z');
}

bool IsHex(wchar_t character) {
  return (character >= L'0' && character <= L'9') || (character >= L'A' && character <= L'F');
}

// Without separators, so that values which differ in these only get the same word.
std::wstring Plain(std::wstring_view text) {
  std::wstring plain;
  std::copy_if(text.begin(), text.end(), std::back_inserter(plain),
               [](wchar_t character) { return IsWordCharacter(character) || character >= 0x80; });
  return plain.empty() ? std::wstring(text) : plain;
}

bool IsWordAt(std::wstring_view text, std::size_t at, std::size_t length) {
  return (at == 0 || !IsWordCharacter(text[at - 1])) &&
         (at + length == text.size() || !IsWordCharacter(text[at + length]));
}

// How many characters of `text` the form takes: 'h' is a hexadecimal digit, anything else itself.
// 0 when it is another text, or only a part of a word.
std::size_t MatchForm(std::wstring_view text, std::size_t at, std::wstring_view form) {
  if (text.size() - at < form.size()) {
    return 0;
  }
  for (std::size_t i = 0; i < form.size(); ++i) {
    if (form[i] == L'h' ? !IsHex(text[at + i]) : text[at + i] != form[i]) {
      return 0;
    }
  }
  return IsWordAt(text, at, form.size()) ? form.size() : 0;
}

// "S-1-5-21-..." and "S-1-12-1-...": accounts that are not the same on every computer.
std::size_t MatchSid(std::wstring_view text, std::size_t at) {
  for (const std::wstring_view beginning : {L"S-1-5-21-", L"S-1-12-1-"}) {
    if (text.compare(at, beginning.size(), beginning) == 0 &&
        (at == 0 || !IsWordCharacter(text[at - 1]))) {
      const std::size_t end = text.find_first_not_of(L"0123456789-", at + beginning.size());
      return (end == std::wstring_view::npos ? text.size() : end) - at;
    }
  }
  return 0;
}

// The folder's name behind "\Users\". A blank belongs to it only where the path goes on.
std::size_t MatchUserFolder(std::wstring_view text, std::size_t at) {
  constexpr std::wstring_view users = L"\\USERS\\";
  constexpr std::wstring_view separators = L"\\/";
  if (at < users.size() || text.compare(at - users.size(), users.size(), users) != 0) {
    return 0;
  }
  std::wstring_view name = text.substr(at);
  const std::size_t end = name.find_first_of(L"\\/\"'<>|:\r\n\t");
  const bool goesOn =
      end != std::wstring_view::npos && separators.find(name[end]) != std::wstring_view::npos;
  name = name.substr(0, goesOn ? end : std::min(end, name.find_first_of(L" ,;)")));
  return name == L"PUBLIC" || name == L"DEFAULT" ? 0 : name.size();
}

}  // namespace

void Mask::AddValue(const std::string& kind, const std::string& value) {
  const std::wstring text = Capitals(Wide(WithoutBlanks(value)));
  if (Plain(text).size() >= kShortestValue) {
    Add(kind, text, /*isName=*/false);
    Add(kind, Plain(text), /*isName=*/false);
  }
}

void Mask::AddName(const std::string& kind, const std::string& name) {
  Add(kind, Capitals(Wide(name)), /*isName=*/true);
}

std::string Mask::Apply(std::string_view text) {
  struct Form {
    const char* kind;
    std::wstring_view form;
  };
  static constexpr Form forms[] = {{"uuid", L"hhhhhhhh-hhhh-hhhh-hhhh-hhhhhhhhhhhh"},
                                   {"identifier", L"hhhhhhhhhhhhhhhhhhhhhhhhhhhhhhhh"},
                                   {"address", L"hh:hh:hh:hh:hh:hh"},
                                   {"address", L"hh-hh-hh-hh-hh-hh"}};
  const std::wstring wide = Wide(text);
  const std::wstring capitals = Capitals(wide);
  std::wstring masked;
  for (std::size_t at = 0; at < wide.size();) {
    std::size_t length = 0;
    std::string token;
    if (const Secret* const secret = FindSecret(capitals, at); secret != nullptr) {
      length = secret->text.size();
      token = secret->token;
    }
    for (const Form& form : forms) {
      if (length == 0 && (length = MatchForm(capitals, at, form.form)) != 0) {
        token = TokenOf(form.kind, capitals.substr(at, length));
      }
    }
    if (length == 0 &&
        ((length = MatchSid(capitals, at)) != 0 || (length = MatchUserFolder(capitals, at)) != 0)) {
      token = TokenOf("user", capitals.substr(at, length));
    }
    if (length == 0) {
      masked += wide[at++];
    } else {
      masked += Wide(token);
      at += length;
    }
  }
  return Utf8(masked);
}

const std::string& Mask::TokenOf(const std::string& kind, const std::wstring& text) {
  const auto [place, isNew] = m_tokens.try_emplace(Plain(text));
  if (isNew) {
    place->second = "[" + kind + "-" + std::to_string(++m_counts[kind]) + "]";
  }
  return place->second;
}

void Mask::Add(const std::string& kind, const std::wstring& text, bool isName) {
  const auto isKnown = [&](const Secret& secret) { return secret.text == text; };
  if (text.empty() || std::any_of(m_secrets.begin(), m_secrets.end(), isKnown)) {
    return;
  }
  m_secrets.push_back({text, TokenOf(kind, text), isName});
  std::stable_sort(m_secrets.begin(), m_secrets.end(), [](const Secret& left, const Secret& right) {
    return left.text.size() > right.text.size();
  });
}

const Mask::Secret* Mask::FindSecret(std::wstring_view capitals, std::size_t at) const {
  for (const Secret& secret : m_secrets) {
    if (secret.text[0] == capitals[at] &&
        capitals.compare(at, secret.text.size(), secret.text) == 0 &&
        (!secret.isName || IsWordAt(capitals, at, secret.text.size()))) {
      return &secret;
    }
  }
  return nullptr;
}

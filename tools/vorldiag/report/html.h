// The one page that an engineer opens in a browser: everything is in it, nothing is loaded, nothing
// runs.
#pragma once

#include <string>
#include <string_view>

// Text as it may stand between tags and in an attribute's quotes.
std::string HtmlText(std::string_view text);

// "<TAG class="CLASS">CONTENT</TAG>"; `content` is HTML. No class when it is empty.
std::string HtmlTag(const std::string& tag, const std::string& cssClass,
                    const std::string& content);

// A whole document.
std::string HtmlDocument(const std::string& title, const std::string& body);

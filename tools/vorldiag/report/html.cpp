#include "tools/vorldiag/report/html.h"

#include "tools/vorldiag/text/utf8.h"

namespace {

// Colours have enough contrast for small text, and no meaning hangs on colour alone. In a narrow
// window everything stands below one another; long words break.
constexpr char kStyle[] = R"(
*{box-sizing:border-box}
body{margin:0 auto;max-width:70rem;padding:1rem;font:15px/1.45 "Segoe UI",system-ui,sans-serif;
 color:#1c1c1c;background:#fff;overflow-wrap:anywhere}
h1{font-size:1.5rem;margin:0 0 .2rem}
h2{font-size:1.15rem;margin:1.8rem 0 .5rem;padding-bottom:.2rem;border-bottom:2px solid #d0d5da}
h3{font-size:1rem;margin:1rem 0 .3rem}
p{margin:.3rem 0}
.sum{font-size:1.05rem;margin:.6rem 0;padding:.5rem .7rem;border-left:6px solid}
.sum.ok{border-color:#1a7f37;background:#e9f6ec}
.sum.warning{border-color:#9a6700;background:#fff6db}
.sum.error{border-color:#b3261e;background:#fdeceb}
.row{display:flex;gap:.2rem .8rem;padding:.3rem 0;border-bottom:1px solid #e6e9ec}
.row>*{min-width:0}
.what{flex:0 0 13rem;font-weight:600}
.how{flex:1 1 0}
.advice{color:#444}.advice::before{content:"\2192\00a0"}
.badge{flex:0 0 4.6rem;align-self:flex-start;text-align:center;border-radius:3px;font-size:.8rem;
 padding:.1rem .3rem;color:#fff}
.badge.ok{background:#1a7f37}
.badge.warning{background:#9a6700}
.badge.error{background:#b3261e}
.badge.set{background:#0b57a4}
.badge.plain{background:#5d6670}
.note{color:#555;font-size:.9rem}
code{font:13px/1.4 Consolas,"DejaVu Sans Mono",monospace}
.line{display:block;width:100%;height:26px;background:#eef1f4}
.scale{display:flex;justify-content:space-between;font-size:.8rem;color:#555}
.run{break-inside:avoid;margin:.8rem 0}
ol.slow{margin:.3rem 0;padding-left:1.6rem}
@media (max-width:40rem){.row{flex-wrap:wrap}.what{flex:1 1 8rem}.how{flex:1 1 100%}}
@media print{body{max-width:none;padding:0;font-size:10pt}
 *{print-color-adjust:exact;-webkit-print-color-adjust:exact}
 .row,.sum{break-inside:avoid}h2,h3{break-after:avoid}}
)";

}  // namespace

std::string HtmlText(std::string_view text) {
  std::string html;
  for (const char character : ValidUtf8(text)) {
    switch (character) {
      case '&':
        html += "&amp;";
        break;
      case '<':
        html += "&lt;";
        break;
      case '>':
        html += "&gt;";
        break;
      case '"':
        html += "&quot;";
        break;
      default:
        html += character;
    }
  }
  return html;
}

std::string HtmlTag(const std::string& tag, const std::string& cssClass,
                    const std::string& content) {
  return "<" + tag + (cssClass.empty() ? "" : " class=\"" + cssClass + "\"") + ">" + content +
         "</" + tag + ">\n";
}

std::string HtmlDocument(const std::string& title, const std::string& body) {
  // The policy: should a trace line ever get past HtmlText, it would still load and run nothing.
  return "<!DOCTYPE html>\n<html lang=\"en\">\n<head>\n<meta charset=\"utf-8\">\n"
         "<meta http-equiv=\"Content-Security-Policy\" content=\"default-src 'none'; "
         "style-src 'unsafe-inline'\">\n"
         "<meta name=\"viewport\" content=\"width=device-width, initial-scale=1\">\n<title>" +
         HtmlText(title) + "</title>\n<style>" + kStyle + "</style>\n</head>\n<body>\n" + body +
         "</body>\n</html>\n";
}

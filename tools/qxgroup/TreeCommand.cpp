// `qxgroup list --tree [--long] GROUP`: the contents as an indented tree, folders and nested
// groups opened, read from the component's XML listing (nested groups expanded with the
// default group extensions). --long adds sizes and dates in the manner of `unzip -l`.
#include <cstdio>
#include <string>
#include <vector>

#include "qxgroup/Automation.h"
#include "qxgroup/Checks.h"
#include "qxgroup/Commands.h"

namespace qx::cli {

namespace {

// One element of the listing: "group", "dir" or "file", with its attributes and text.
struct Element {
  std::string tag;
  std::vector<std::pair<std::string, std::string>> attrs;
  std::string text;
  std::vector<Element> children;

  std::string Attr(const std::string& name) const {
    for (const auto& [n, v] : attrs)
      if (n == name) return v;
    return {};
  }
};

std::string Unescape(const std::string& s) {
  static const std::pair<const char*, char> kEntities[] = {
      {"&amp;", '&'}, {"&lt;", '<'}, {"&gt;", '>'}, {"&quot;", '"'}, {"&apos;", '\''}};
  std::string out;
  for (size_t i = 0; i < s.size(); ++i) {
    bool done = false;
    if (s[i] == '&')
      for (const auto& [entity, c] : kEntities)
        if (s.compare(i, std::char_traits<char>::length(entity), entity) == 0) {
          out += c;
          i += std::char_traits<char>::length(entity) - 1;
          done = true;
          break;
        }
    if (!done) out += s[i];
  }
  return out;
}

// Reads the element starting at the '<' at `at` (the listing's own plain form: elements,
// attributes in double quotes, text; no comments or CDATA). False on anything else.
bool ParseElement(const std::string& x, size_t& at, Element& e, int depth = 0) {
  if (depth > 200 || at >= x.size() || x[at] != '<') return false;
  size_t p = at + 1;
  while (p < x.size() && x[p] != ' ' && x[p] != '>' && x[p] != '/') e.tag += x[p++];
  for (;;) {
    while (p < x.size() && (x[p] == ' ' || x[p] == '\r' || x[p] == '\n')) ++p;
    if (p >= x.size()) return false;
    if (x.compare(p, 2, "/>") == 0) {
      at = p + 2;
      return true;
    }
    if (x[p] == '>') break;
    const size_t eq = x.find("=\"", p);
    const size_t end = eq == std::string::npos ? eq : x.find('"', eq + 2);
    if (end == std::string::npos) return false;
    e.attrs.emplace_back(x.substr(p, eq - p), Unescape(x.substr(eq + 2, end - eq - 2)));
    p = end + 1;
  }
  ++p;
  for (;;) {
    const size_t lt = x.find('<', p);
    if (lt == std::string::npos) return false;
    e.text += x.substr(p, lt - p);
    if (x.compare(lt, 2, "</") == 0) {
      const size_t gt = x.find('>', lt);
      if (gt == std::string::npos) return false;
      at = gt + 1;
      break;
    }
    e.children.emplace_back();
    p = lt;
    if (!ParseElement(x, p, e.children.back(), depth + 1)) return false;
  }
  // Line breaks between child elements are layout, not text.
  if (!e.children.empty()) e.text.clear();
  while (!e.text.empty() && (e.text.back() == '\n' || e.text.back() == '\r')) e.text.pop_back();
  e.text = Unescape(e.text);
  return true;
}

// "2004.2.4.5.14.5.32.0" (year, month, weekday, day, hour, minute, second, ms) => "2004-02-05 14:05".
std::string ShortDate(const std::string& date) {
  int f[8] = {};
  if (std::sscanf(date.c_str(), "%d.%d.%d.%d.%d.%d.%d.%d", &f[0], &f[1], &f[2], &f[3], &f[4],
                  &f[5], &f[6], &f[7]) != 8)
    return {};
  char out[32];
  std::snprintf(out, sizeof out, "%04d-%02d-%02d %02d:%02d", f[0], f[1], f[3], f[4], f[5]);
  return out;
}

struct Totals {
  unsigned long long bytes = 0;
  unsigned long files = 0;
};

void Print(const Element& e, int depth, bool longForm, Totals& totals) {
  std::string name = e.tag == "file" ? e.text : e.Attr("name");
  if (e.tag == "dir") name += "\\";
  if (e.tag == "group" && depth > 0) name += "  (group)";
  if (longForm) {
    const std::string size = e.Attr("Size");
    std::printf("%10s  %-16s  ", size.c_str(), ShortDate(e.Attr("Date")).c_str());
    if (e.tag == "file") {
      totals.bytes += std::strtoull(size.c_str(), nullptr, 10);
      ++totals.files;
    }
  }
  std::printf("%*s%s\n", 2 * depth, "", name.c_str());
  for (const Element& c : e.children) Print(c, depth + 1, longForm, totals);
}

// The component's XML listing of `group`, nested groups opened, as a tree.
Element ReadTree(const std::string& group, bool longForm) {
  Bstr xml;
  const HRESULT hr = Session()->ReadContentsXml(ToBstr(group).get(), longForm ? 1 : 0,
                                                ToBstr("*").get(), xml.receive());
  if (FAILED(hr)) FailWithReason("cannot list " + group);
  const std::string text = FromBstr(xml.get());
  Element root;
  size_t at = text.find('<');
  if (at == std::string::npos || !ParseElement(text, at, root))
    throw Failure{"cannot read the listing of " + group};
  return root;
}

// Collects the files below `e`; `group` is the path of the innermost nested group so far ("" at
// the top), `inner` the path inside it.
void CollectNested(const Element& e, const std::string& group, const std::string& inner,
                   std::vector<NestedMember>& out) {
  for (const Element& c : e.children) {
    const std::string name = c.tag == "file" ? c.text : c.Attr("name");
    const std::string path = inner.empty() ? name : inner + "\\" + name;
    // A group inside a nested group is one of its members too.
    if (c.tag != "dir" && !group.empty()) out.push_back({group, path});
    if (c.tag == "dir") CollectNested(c, group, path, out);
    if (c.tag == "group") CollectNested(c, group.empty() ? path : group + "\\" + path, "", out);
  }
}

}  // namespace

std::vector<NestedMember> NestedMembers(const std::string& group) {
  std::vector<NestedMember> out;
  CollectNested(ReadTree(group, false), "", "", out);
  return out;
}

int CmdTree(const std::string& group, bool longForm) {
  CheckRepresentable(group, "group file name");
  const Element root = ReadTree(group, longForm);
  if (longForm) std::printf("%10s  %-16s  %s\n%10s  %-16s  %s\n", "Length", "Date     Time",
                            "Name", "----------", "----------------", "----");
  Totals totals;
  Print(root, 0, longForm, totals);
  if (longForm)
    std::printf("%10s  %-16s  %s\n%10llu  %-16s  %lu file%s\n", "----------", "", "----",
                totals.bytes, "", totals.files, totals.files == 1 ? "" : "s");
  return kExitOk;
}

}  // namespace qx::cli

#include "Kivo/ValueText.h"

#include <charconv>

namespace Kivo {

String quoted(std::string_view s) {
   String out = "'";
   for (char c : s) {
      if (c == '\'' || c == '\\') {
         out += '\\';
      }
      out += c;
   }
   out += '\'';
   return out;
}

namespace {

class Cursor {
 public:
   Cursor(std::string_view text, String const& type) : s_(text), type_(type) {}

   void skipBlanks() {
      while (i_ < s_.size() && s_[i_] == ' ') {
         ++i_;
      }
   }
   bool tryLiteral(std::string_view lit) {
      skipBlanks();
      if (s_.substr(i_, lit.size()) == lit) {
         i_ += lit.size();
         return true;
      }
      return false;
   }
   void literal(std::string_view lit) {
      if (!tryLiteral(lit)) {
         fail("expected \"" + String(lit) + "\"");
      }
   }
   String quotedString() {
      skipBlanks();
      if (i_ >= s_.size() || s_[i_] != '\'') {
         fail("expected a quoted string");
      }
      ++i_;
      String out;
      while (i_ < s_.size() && s_[i_] != '\'') {
         if (s_[i_] == '\\' && i_ + 1 < s_.size()) {
            ++i_;
         }
         out += s_[i_++];
      }
      if (i_ >= s_.size()) {
         fail("unterminated quoted string");
      }
      ++i_;
      return out;
   }
   // A bare value runs to the next ',' or '}' at this nesting level.
   String bareValue() {
      skipBlanks();
      std::size_t const start = i_;
      int depth = 0;
      while (i_ < s_.size()) {
         char const c = s_[i_];
         if (c == '\'') {
            quotedString();
            continue;
         }
         if (c == '(' || c == '{' || c == '[') {
            ++depth;
         } else if (c == ')' || c == '}' || c == ']') {
            if (depth == 0) {
               break;
            }
            --depth;
         } else if (c == ',' && depth == 0) {
            break;
         }
         ++i_;
      }
      std::string_view v = s_.substr(start, i_ - start);
      while (!v.empty() && v.back() == ' ') {
         v.remove_suffix(1);
      }
      if (v.empty()) {
         fail("empty value");
      }
      return String(v);
   }
   bool atEnd() {
      skipBlanks();
      return i_ == s_.size();
   }
   bool peek(char c) {
      skipBlanks();
      return i_ < s_.size() && s_[i_] == c;
   }
   [[noreturn]] void fail(String const& why) const {
      throw Exception("cannot parse " + type_ + " text at offset " + std::to_string(i_) + ": " +
                      why + " in \"" + String(s_) + "\"");
   }

 private:
   std::string_view s_;
   String const& type_;
   std::size_t i_ = 0;
};

}  // namespace

ValueText::ValueText(std::string_view text, std::string_view typeName) : typeName_(typeName) {
   Cursor c(text, typeName_);
   c.literal("Value(");
   if (c.quotedString() != typeName) {
      c.fail("not a " + typeName_);
   }
   c.literal(",");
   c.literal("**");
   c.literal("{");
   while (!c.tryLiteral("}")) {
      if (!attrs_.empty()) {
         c.literal(",");
      }
      String key = c.quotedString();
      c.literal(":");
      String value = c.peek('\'') ? c.quotedString() : c.bareValue();
      attrs_.emplace_back(std::move(key), std::move(value));
   }
   c.literal(")");
   if (!c.atEnd()) {
      c.fail("trailing text");
   }
}

String const& ValueText::attr(std::string_view name) const {
   for (auto const& [k, v] : attrs_) {
      if (k == name) {
         return v;
      }
   }
   throw Exception(typeName_ + " text has no attribute '" + String(name) + "'");
}

bool ValueText::boolAttr(std::string_view name) const {
   String const& v = attr(name);
   if (v == "True") {
      return true;
   }
   if (v == "False") {
      return false;
   }
   throw Exception(typeName_ + " attribute '" + String(name) + "' is not True or False: " + v);
}

unsigned long long ValueText::unsignedAttr(std::string_view name, unsigned long long max) const {
   String const& v = attr(name);
   unsigned long long out = 0;
   auto r = std::from_chars(v.data(), v.data() + v.size(), out);
   if (r.ec != std::errc() || r.ptr != v.data() + v.size() || out > max) {
      throw Exception(typeName_ + " attribute '" + String(name) + "' is not a number up to " +
                      std::to_string(max) + ": " + v);
   }
   return out;
}

}  // namespace Kivo

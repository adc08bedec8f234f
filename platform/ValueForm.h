// The string form of structured values: "Value('Type', ** {'a': x, 'b': y})".
//
// Traces and dumps print keys and records this way, and the parse
// constructors of those types read the same text back. Field values are the
// fields' own string forms; they may themselves be value forms.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace Platform {

class ValueFormWriter {
  public:
    explicit ValueFormWriter( std::string_view type );
    ValueFormWriter& field( std::string_view name, std::string_view value );
    std::string str() const { return text_ + "})"; }

  private:
    std::string text_;
    bool first_ = true;
};

// A parsed value form: the type name and the fields in order. Parsing failures
// raise DeserializationError naming `attribute`.
class ValueForm {
  public:
    ValueForm( std::string_view text, std::string_view expectedType,
               std::string_view attribute );
    // The raw text of a field; raises DeserializationError when missing.
    const std::string& field( std::string_view name ) const;
    const std::vector<std::pair<std::string, std::string>>& fields() const {
        return fields_;
    }

  private:
    std::string attribute_;
    std::vector<std::pair<std::string, std::string>> fields_;
};

// Scalar field values; anything else raises DeserializationError naming
// `attribute`.
uint32_t parseU32Field( std::string_view text, std::string_view attribute );
bool parseBoolField( std::string_view text, std::string_view attribute );

}  // namespace Platform

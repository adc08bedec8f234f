// Every trace line written while a TraceCapture lives, with all levels on.
#pragma once

#include <string>
#include <vector>

#include "platform/Mivlog.h"

namespace TestKit {

class TraceCapture {
  public:
    TraceCapture() {
        Mivlog::levelsIs( Mivlog::kAllLevels );
        Mivlog::sinkIs( [this]( std::string_view line ) { lines.emplace_back( line ); } );
    }
    ~TraceCapture() {
        Mivlog::sinkIs( nullptr );
        Mivlog::levelsIs( Mivlog::kNoLevels );
    }
    TraceCapture( const TraceCapture& ) = delete;
    TraceCapture& operator=( const TraceCapture& ) = delete;

    // A whole line, its "\n" left out.
    bool has( const std::string& line ) const {
        for ( const std::string& l : lines ) {
            if ( l == line + "\n" ) {
                return true;
            }
        }
        return false;
    }
    // How often `text` stands in the lines, each line ending in "\n".
    size_t count( const std::string& text ) const {
        const std::string all = this->all();
        size_t n = 0;
        for ( size_t at = all.find( text ); at != std::string::npos;
              at = all.find( text, at + 1 ) ) {
            ++n;
        }
        return n;
    }
    std::string all() const {
        std::string out;
        for ( const std::string& l : lines ) {
            out += l;
        }
        return out;
    }
    void clear() { lines.clear(); }

    std::vector<std::string> lines;
};

}  // namespace TestKit

// Scratch space for tests: a fresh directory under /dev/shm that goes with
// everything in it, and a state tree rooted in one.
#pragma once

#include <stdlib.h>

#include <filesystem>
#include <stdexcept>
#include <string>

#include "platform/StateTree.h"

namespace TestKit {

class TempDir {
  public:
    explicit TempDir( const std::string& prefix = "cspftest" ) {
        std::string tmpl = "/dev/shm/" + prefix + "-XXXXXX";
        if ( !mkdtemp( tmpl.data() ) ) {
            throw std::runtime_error( "cannot make " + tmpl );
        }
        path_ = tmpl;
    }
    ~TempDir() {
        std::error_code ec;
        std::filesystem::remove_all( path_, ec );
    }
    TempDir( const TempDir& ) = delete;
    TempDir& operator=( const TempDir& ) = delete;

    const std::string& path() const { return path_; }
    std::string operator/( const std::string& name ) const { return path_ + "/" + name; }

  private:
    std::string path_;
};

// Declared ahead of what uses the tree, so that it goes last.
class TempTree : public TempDir {
  public:
    explicit TempTree( const std::string& prefix = "cspftree" )
        : TempDir( prefix ), tree( path() ) {}
    Platform::StateTree tree;
};

}  // namespace TestKit

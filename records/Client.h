// Cspf::Client: a client's registration under "te/cspf/client", named by the
// client. It lists the VRFs and the address families in which the client has
// path request tables; the agent only reads it.
#pragma once

#include <string>

#include "platform/Attribute.h"
#include "platform/DumpContext.h"
#include "records/AddressFamily.h"
#include "records/VrfName.h"

namespace Cspf {

class Client : public Platform::Entity {
  public:
    // Raises NameError when the name cannot be a path component.
    explicit Client( std::string name );

    const std::string& name() const { return name_; }

    CSPF_COLL( OrderedColl, L3::VrfName, bool, vrf, vrfs )
    CSPF_COLL( OrderedColl, Net::AddressFamily, bool, addressFamily, addressFamilys )

    // "Value('Cspf::Client', ** {'name': rsvp, 'vrf': [default, red], 'addressFamily':
    // [ipv4]})"
    std::string toString() const;
    void dumpState( Platform::DumpContext& context, unsigned indent ) const;

  private:
    std::string name_;
};

// The state-tree path of a client's request and result tables:
// "te/cspf/config/vrf/<vrf>/<af>/<client>" and "te/cspf/status/vrf/<vrf>/<af>/<client>".
std::string pathConfigTablePath( const L3::VrfName& vrf, Net::AddressFamily af,
                                 const std::string& client );
std::string pathStatusTablePath( const L3::VrfName& vrf, Net::AddressFamily af,
                                 const std::string& client );

}  // namespace Cspf

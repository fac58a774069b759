// The connection of a Websocket on this system's sockets: with TLS or without.
#pragma once

#include "tls/peer_validation.h"
#include "websocket/websocket.h"

#include <memory>
#include <string>

namespace quenmark::websocket {

// Transports on a cTlsSocket. `certificates` judges servers; without it wss cannot connect. The roots in the PEM file
// `rootsFile`, when there is one, are the only ones trusted; when it cannot be read no connection is made. The loop
// must outlive the factory and its transports.
TransportFactory MakeTlsTransportFactory(platform::MessageLoop& loop,
                                         std::shared_ptr<tls::CertificateServices> certificates,
                                         std::string rootsFile = {});

// Everything a Websocket takes from below: these transports, the system's generator and SHA-1.
WebsocketServices MakeWebsocketServices(platform::MessageLoop& loop,
                                        std::shared_ptr<tls::CertificateServices> certificates,
                                        std::string rootsFile = {});

}  // namespace quenmark::websocket

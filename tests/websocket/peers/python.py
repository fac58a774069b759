"""Serves WebSockets on 127.0.0.1, plain and with TLS, and does what the address asks. Prints both ports.

usage: python.py KEY-AND-CERTIFICATE.pem
"""

import asyncio
import random
import ssl
import sys
import types
from urllib.parse import parse_qs, urlsplit

from websockets.extensions.permessage_deflate import ServerPerMessageDeflateFactory
from websockets.legacy.server import WebSocketServerProtocol, serve

DEFLATES = {
    "on": {},
    "server_no_context_takeover": {"server_no_context_takeover": True},
    "client_no_context_takeover": {"client_no_context_takeover": True},
    "server_max_window_bits=9": {"server_max_window_bits": 9},
    "client_max_window_bits=10": {"client_max_window_bits": 10},
}


def asked(path):
    return {name: values[0] for name, values in parse_qs(urlsplit(path).query).items()}


class Protocol(WebSocketServerProtocol):
    async def process_request(self, path, headers):
        query = asked(path)
        deflate = DEFLATES.get(query.get("deflate", "off"))
        self.available_extensions[:] = [] if deflate is None else [ServerPerMessageDeflateFactory(**deflate)]
        if "status" not in query:
            return None
        status = types.SimpleNamespace(value=int(query["status"]), phrase="Answer")
        return status, [("Location", query["to"])] if "to" in query else [], b""


async def pieces(socket, data):
    while random.random() < 0.8 and data:
        size = random.randrange(len(data))
        yield data[:size]
        await socket.ping()
        data = data[size:]
    yield data


async def handle(socket, path):
    query = asked(path)
    if "close" in query:
        await socket.close(int(query["close"]), query.get("reason", ""))
        return
    if "vanish" in query:
        socket.transport.abort()
        return
    async for data in socket:
        await socket.send(pieces(socket, data))


async def main():
    secured = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
    secured.load_cert_chain(sys.argv[1])
    for tls in (None, secured):
        server = await serve(
            handle, "127.0.0.1", 0, ssl=tls, max_size=None, create_protocol=Protocol, compression="deflate",
            subprotocols=["a", "b"], select_subprotocol=lambda client, server: client[-1])
        print(server.sockets[0].getsockname()[1], flush=True)
    await asyncio.Future()


asyncio.run(main())

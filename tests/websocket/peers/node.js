// Serves WebSockets on 127.0.0.1, plain and with TLS, and does what the address asks. Prints both ports.
// usage: node.js KEY-AND-CERTIFICATE.pem
'use strict';
const fs = require('fs');
const {WebSocketServer} = require('ws');

const pem = fs.readFileSync(process.argv[2]);
const deflates = {
  'off': false,
  'on': {},
  'server_no_context_takeover': {serverNoContextTakeover: true},
  'client_no_context_takeover': {clientNoContextTakeover: true},
  'server_max_window_bits=9': {serverMaxWindowBits: 9},
  'client_max_window_bits=10': {clientMaxWindowBits: 10},
};

function echo(socket, data, binary) {
  let begin = 0;
  while (Math.random() < 0.8 && begin < data.length) {
    const end = begin + Math.floor(Math.random() * (data.length - begin));
    socket.send(data.subarray(begin, end), {binary, fin: false});
    socket.ping('between');
    begin = end;
  }
  socket.send(data.subarray(begin), {binary});
}

function upgrade(request, stream, head) {
  const address = new URL(request.url, 'http://host');
  const asked = address.searchParams;
  const deflate = deflates[asked.get('deflate') || 'off'];
  const server = new WebSocketServer({
    noServer: true,
    perMessageDeflate: deflate && {threshold: 0, ...deflate},
    handleProtocols: (protocols) => [...protocols].pop(),
    verifyClient: (info, answer) => asked.has('status') ?
        answer(false, Number(asked.get('status')), 'Answer', asked.has('to') ? {Location: asked.get('to')} : {}) :
        answer(true),
  });
  server.handleUpgrade(request, stream, head, (socket) => {
    if (asked.has('close')) return socket.close(Number(asked.get('close')), asked.get('reason') || '');
    if (asked.has('vanish')) return socket.terminate();
    socket.on('message', (data, binary) => echo(socket, data, binary));
    socket.on('error', () => {});
  });
}

for (const server of [require('http').createServer(), require('https').createServer({key: pem, cert: pem})]) {
  server.on('upgrade', upgrade);
  server.on('clientError', () => {});
  server.listen(0, '127.0.0.1', () => console.log(server.address().port));
}

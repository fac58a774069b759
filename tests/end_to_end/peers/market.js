// A broker of another make: REST and event stream on node's https and ws. Prints its port, then each subscription.
// usage: market.js KEY-AND-CERTIFICATE.pem
'use strict';
const fs = require('fs');
const https = require('https');
const {WebSocketServer} = require('ws');

const pem = fs.readFileSync(process.argv[2]);
const session = 'node-session-1';
const answers = {
  '/v1/markets/events/session': {stream: {url: 'unused', sessionid: session}},
  '/v1/markets/quotes': {quotes: {quote: {
    symbol: 'QQQ', description: 'Invesco', exch: 'G', type: 'etf', last: 310.5, change: 0.5, change_percentage: 0.16,
    volume: 1000, trade_date: 1609447700000, open: 310, high: 311, low: 309.25, close: null, prevclose: 310,
    bid: 310.4, bidsize: 3, ask: 310.6, asksize: 4}}},
};

const server = https.createServer({key: pem, cert: pem}, (request, response) => {
  const answer = answers[request.url.split('?')[0]];
  response.writeHead(answer ? 200 : 404, {'Content-Type': 'application/json'});
  response.end(JSON.stringify(answer || {}));
});
new WebSocketServer({server, path: '/v1/markets/events', perMessageDeflate: true}).on('connection', (socket) => {
  socket.on('message', (text) => {
    console.log(String(text));
    const {symbols, sessionid} = JSON.parse(text);
    if (sessionid !== session) return socket.send(JSON.stringify({error: 'session not found'}));
    socket.ping('alive');
    for (let i = 1; i <= 100; i++) {
      for (const symbol of symbols) {
        socket.send(JSON.stringify({type: 'quote', symbol, bid: i + 0.5, bidsz: i, bidexch: 'Q', biddate: '1',
                                    ask: i + 0.75, asksz: 2 * i, askexch: 'Q', askdate: '1'}));
        socket.send(JSON.stringify({type: 'timesale', symbol, exch: 'Q', bid: '1', ask: '1', last: `${310 + i / 100}`,
                                    size: '10', date: `${1609447718210 + 500 * i}`, seq: i, flag: ''}));
      }
    }
  });
});
server.listen(0, '127.0.0.1', () => console.log(server.address().port));

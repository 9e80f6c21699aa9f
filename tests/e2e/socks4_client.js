// The npm "socks" client speaking SOCKS4 (4A for a name) to the proxy, for test_socks4.py.
//   node socks4_client.js connect PROXY_HOST PROXY_PORT HOST PORT USER
//     sends "ping", prints "echo TEXT" with what came back
//   node socks4_client.js bind PROXY_HOST PROXY_PORT PEER_HOST USER
//     prints "bound HOST PORT" (where the peer is to connect), then "established HOST PORT"
//     (the peer as the proxy saw it), sends "from the client", prints "received TEXT"
'use strict';
const { SocksClient } = require('socks');

const [command, proxyHost, proxyPort, host, ...rest] = process.argv.slice(2);
const userId = rest[rest.length - 1];
const options = {
    proxy: { host: proxyHost, port: Number(proxyPort), type: 4, userId },
    command,
    destination: { host, port: command === 'connect' ? Number(rest[0]) : 0 },
    timeout: 10000,
};

function fail(error) {
    console.error(error.message || String(error));
    process.exit(1);
}

function exchange(socket, send, label) {
    socket.once('data', (data) => {
        console.log(`${label} ${data}`);
        socket.end();
    });
    socket.on('error', fail);
    socket.write(send);
}

if (command === 'connect') {
    SocksClient.createConnection(options).then(({ socket }) => exchange(socket, 'ping', 'echo'), fail);
} else {
    const client = new SocksClient(options);
    client.on('bound', ({ remoteHost }) => console.log(`bound ${remoteHost.host} ${remoteHost.port}`));
    client.on('established', ({ remoteHost, socket }) => {
        console.log(`established ${remoteHost.host} ${remoteHost.port}`);
        exchange(socket, 'from the client', 'received');
    });
    client.on('error', fail);
    client.connect();
}

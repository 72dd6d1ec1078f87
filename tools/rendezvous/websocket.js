'use strict';
// A small RFC 6455 WebSocket server side: the opening handshake on an HTTP
// upgrade, masked client frames, fragmentation, ping/pong and the closing
// handshake. Enough for the development rendezvous server; no extensions.

const crypto = require('node:crypto');
const { EventEmitter } = require('node:events');

const GUID = '258EAFA5-E914-47DA-95CA-C5AB0DC85B11';
const OP_CONTINUATION = 0x0;
const OP_TEXT = 0x1;
const OP_BINARY = 0x2;
const OP_CLOSE = 0x8;
const OP_PING = 0x9;
const OP_PONG = 0xa;

function rejectUpgrade(socket, status, reason) {
  const body = `${reason}\n`;
  socket.end(
    `HTTP/1.1 ${status} ${reason}\r\nConnection: close\r\nContent-Type: text/plain\r\n` +
      `Content-Length: ${Buffer.byteLength(body)}\r\n\r\n${body}`,
  );
}

class WebSocketConnection extends EventEmitter {
  constructor(socket, maxMessageBytes) {
    super();
    this.socket = socket;
    this.maxMessageBytes = maxMessageBytes;
    this.buffer = Buffer.alloc(0);
    this.fragments = [];
    this.fragmentBytes = 0;
    this.fragmentOpcode = null;
    this.closed = false;
    this.closeSent = false;
    socket.setNoDelay(true);
    socket.on('data', (chunk) => this.onData(chunk));
    socket.on('close', () => this.finish(1006, ''));
    socket.on('error', () => this.finish(1006, ''));
  }

  get isOpen() {
    return !this.closed && !this.closeSent;
  }

  sendText(text) {
    if (!this.isOpen) return false;
    this.writeFrame(OP_TEXT, Buffer.from(text, 'utf8'));
    return true;
  }

  sendJson(message) {
    return this.sendText(JSON.stringify(message));
  }

  close(code = 1000, reason = '') {
    if (this.closeSent || this.closed) return;
    const reasonBytes = Buffer.from(reason, 'utf8').subarray(0, 120);
    const payload = Buffer.alloc(2 + reasonBytes.length);
    payload.writeUInt16BE(code, 0);
    reasonBytes.copy(payload, 2);
    this.writeFrame(OP_CLOSE, payload);
    this.closeSent = true;
    // A peer that never answers the close frame is cut off.
    this.closeTimer = setTimeout(() => this.socket.destroy(), 2000);
    this.closeTimer.unref();
  }

  writeFrame(opcode, payload) {
    let header;
    if (payload.length < 126) {
      header = Buffer.from([0x80 | opcode, payload.length]);
    } else if (payload.length < 65536) {
      header = Buffer.alloc(4);
      header[0] = 0x80 | opcode;
      header[1] = 126;
      header.writeUInt16BE(payload.length, 2);
    } else {
      header = Buffer.alloc(10);
      header[0] = 0x80 | opcode;
      header[1] = 127;
      header.writeBigUInt64BE(BigInt(payload.length), 2);
    }
    this.socket.write(Buffer.concat([header, payload]));
  }

  fail(code, reason) {
    this.close(code, reason);
    this.buffer = Buffer.alloc(0);
  }

  onData(chunk) {
    if (this.closed) return;
    this.buffer = this.buffer.length ? Buffer.concat([this.buffer, chunk]) : chunk;
    while (!this.closed) {
      const frame = this.takeFrame();
      if (!frame) return;
      this.onFrame(frame);
    }
  }

  // One complete frame from the buffer, or null when more bytes are needed.
  takeFrame() {
    const b = this.buffer;
    if (b.length < 2) return null;
    const fin = (b[0] & 0x80) !== 0;
    const rsv = b[0] & 0x70;
    const opcode = b[0] & 0x0f;
    const masked = (b[1] & 0x80) !== 0;
    let length = b[1] & 0x7f;
    let offset = 2;
    if (length === 126) {
      if (b.length < 4) return null;
      length = b.readUInt16BE(2);
      offset = 4;
    } else if (length === 127) {
      if (b.length < 10) return null;
      const big = b.readBigUInt64BE(2);
      if (big > BigInt(this.maxMessageBytes)) {
        this.fail(1009, 'message too big');
        return null;
      }
      length = Number(big);
      offset = 10;
    }
    if (rsv !== 0 || !masked) {
      this.fail(1002, 'protocol error');
      return null;
    }
    if (length > this.maxMessageBytes) {
      this.fail(1009, 'message too big');
      return null;
    }
    if (b.length < offset + 4 + length) return null;
    const mask = b.subarray(offset, offset + 4);
    const payload = Buffer.from(b.subarray(offset + 4, offset + 4 + length));
    for (let i = 0; i < payload.length; i += 1) payload[i] ^= mask[i & 3];
    this.buffer = b.subarray(offset + 4 + length);
    return { fin, opcode, payload };
  }

  onFrame({ fin, opcode, payload }) {
    if (opcode >= 0x8) {
      if (!fin || payload.length > 125) return this.fail(1002, 'protocol error');
      if (opcode === OP_PING) {
        if (this.isOpen) this.writeFrame(OP_PONG, payload);
      } else if (opcode === OP_CLOSE) {
        const code = payload.length >= 2 ? payload.readUInt16BE(0) : 1005;
        if (!this.closeSent) {
          const echo = payload.length >= 2 ? payload.subarray(0, 2) : Buffer.alloc(0);
          this.writeFrame(OP_CLOSE, echo);
          this.closeSent = true;
        }
        this.socket.end();
        this.finish(code, payload.subarray(2).toString('utf8'));
      } else if (opcode !== OP_PONG) {
        this.fail(1002, 'unknown control frame');
      }
      return undefined;
    }
    if (opcode === OP_CONTINUATION) {
      if (this.fragmentOpcode === null) return this.fail(1002, 'unexpected continuation');
    } else if (opcode === OP_TEXT || opcode === OP_BINARY) {
      if (this.fragmentOpcode !== null) return this.fail(1002, 'expected continuation');
      this.fragmentOpcode = opcode;
    } else {
      return this.fail(1002, 'unknown opcode');
    }
    this.fragmentBytes += payload.length;
    if (this.fragmentBytes > this.maxMessageBytes) return this.fail(1009, 'message too big');
    this.fragments.push(payload);
    if (!fin) return undefined;
    const message = Buffer.concat(this.fragments);
    const isText = this.fragmentOpcode === OP_TEXT;
    this.fragments = [];
    this.fragmentBytes = 0;
    this.fragmentOpcode = null;
    if (this.closeSent) return undefined;
    if (isText) {
      let text;
      try {
        text = new TextDecoder('utf-8', { fatal: true }).decode(message);
      } catch {
        return this.fail(1007, 'invalid UTF-8');
      }
      this.emit('message', text, true);
    } else {
      this.emit('message', message, false);
    }
    return undefined;
  }

  finish(code, reason) {
    if (this.closed) return;
    this.closed = true;
    if (this.closeTimer) clearTimeout(this.closeTimer);
    this.emit('close', code, reason);
  }
}

// Completes the opening handshake of an HTTP upgrade request and returns the
// connection, or answers with an error status and returns null.
function acceptWebSocket(request, socket, head, { maxMessageBytes = 1 << 20 } = {}) {
  const key = request.headers['sec-websocket-key'];
  const upgrade = (request.headers.upgrade || '').toLowerCase();
  if (request.method !== 'GET' || upgrade !== 'websocket' || !key) {
    rejectUpgrade(socket, 400, 'Bad Request');
    return null;
  }
  if (request.headers['sec-websocket-version'] !== '13') {
    socket.end('HTTP/1.1 426 Upgrade Required\r\nSec-WebSocket-Version: 13\r\nContent-Length: 0\r\n\r\n');
    return null;
  }
  const accept = crypto.createHash('sha1').update(key + GUID).digest('base64');
  socket.write(
    'HTTP/1.1 101 Switching Protocols\r\nUpgrade: websocket\r\nConnection: Upgrade\r\n' +
      `Sec-WebSocket-Accept: ${accept}\r\n\r\n`,
  );
  const connection = new WebSocketConnection(socket, maxMessageBytes);
  // Bytes that came with the upgrade request are read once the caller has
  // attached its listeners.
  if (head && head.length) process.nextTick(() => connection.onData(head));
  return connection;
}

module.exports = { acceptWebSocket, rejectUpgrade, WebSocketConnection };

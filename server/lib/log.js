'use strict';
// Structured logs (pino): JSON lines for a journal or a collector, or with
// --dev plain "rendezvous: ..." lines for a person (and the tests) to read.

const pino = require('pino');

function makeLogger(config) {
  if (config.logFormat === 'json') {
    return pino({ level: config.logLevel, base: { service: 'zul-rendezvous' } });
  }
  const destination = {
    write(line) {
      try {
        const record = JSON.parse(line);
        process.stdout.write(`rendezvous: ${record.msg}\n`);
      } catch {
        process.stdout.write(line);
      }
    },
  };
  return pino({ level: config.logLevel, base: null, timestamp: false }, destination);
}

module.exports = { makeLogger };

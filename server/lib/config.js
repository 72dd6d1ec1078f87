'use strict';
// The service's configuration: defaults, then a JSON file (--config or
// ZUL_RENDEZVOUS_CONFIG), then the environment (ZUL_RENDEZVOUS_<NAME>, and
// REDIS_URL), then the command line. One table names every setting once.

const fs = require('node:fs');
const path = require('node:path');

// key, type, default, help. Flags are --kebab-case of the key; environment
// variables ZUL_RENDEZVOUS_ + UPPER_SNAKE of it. Lists are comma-separated there.
const SETTINGS = [
  ['host', 'string', '127.0.0.1', 'listen address ("::" or "0.0.0.0": every interface)'],
  ['port', 'port', 8443, 'listen port (0 picks a free one)'],
  ['publicUrl', 'string', null, 'the address phones and agents use, e.g. https://velto.example.net'],
  ['tlsCert', 'string', null, 'PEM certificate chain: serve HTTPS/WSS (re-read on SIGHUP)'],
  ['tlsKey', 'string', null, 'PEM private key of that certificate'],
  ['trustedProxies', 'list', [], 'addresses of reverse proxies whose X-Forwarded-For/-Proto are believed'],
  ['stateFile', 'string', null, 'where state that outlives a restart is kept without Redis ' +
    '(default $STATE_DIRECTORY/state.json, or ./rendezvous-state.json; none with --dev)'],
  ['redisUrl', 'string', null, 'Redis shared by every instance (also REDIS_URL), e.g. redis://127.0.0.1:6379'],
  ['turnUrls', 'list', [], 'TURN servers for agents and phones, e.g. turn:turn.example.net:3478'],
  ['turnSecret', 'string', null, "coturn's static-auth-secret (use-auth-secret)"],
  ['turnTtl', 'int', 86400, 'lifetime of TURN credentials in seconds'],
  ['stunUrls', 'list', [], 'STUN servers handed out with the TURN ones'],
  ['sessionLimit', 'int', 0, 'phone sessions one agent connection may serve (0: no limit)'],
  ['pairingTtl', 'int', 120, 'lifetime of a pairing offer in seconds'],
  ['maxSkew', 'int', 300, 'accepted clock difference of identity proofs in seconds'],
  ['maxMessageBytes', 'int', 262144, 'largest WebSocket message accepted (the agent takes no more)'],
  ['maxPhonesPerAgent', 'int', 32, 'phone sockets one agent may have open at a time'],
  ['pairingPerMinute', 'int', 30, 'POST /v1/pairing per client address and minute (0: no limit)'],
  ['upgradesPerMinute', 'int', 120, 'WebSocket upgrades per client address and minute (0: no limit)'],
  ['pingSeconds', 'int', 20, 'a silent WebSocket is pinged after this long and dropped after twice it'],
  ['handshakeSeconds', 'int', 10, 'time a client has for its TLS handshake and request head'],
  ['metricsFrom', 'list', ['127.0.0.1', '::1'], 'client addresses allowed to read /metrics'],
  ['logLevel', 'string', 'info', 'pino log level: fatal, error, warn, info, debug'],
  ['logFormat', 'string', null, 'json (default) or text (default with --dev)'],
  ['dev', 'bool', false, 'development mode: the development phone page, /dev-certificate.crt, ' +
    'short links (/p/CODE), text logs, no state file'],
  ['tlsPort', 'port', null, 'with --dev and a certificate: keep plain HTTP on --host/--port and ' +
    'serve HTTPS on every interface on this port too (phones on the network)'],
  ['tamperOfferFingerprint', 'bool', false, "with --dev, for tests of the phones' checks: replace " +
    'the DTLS fingerprint of every offer relayed to a phone'],
];

const kebab = (key) => key.replace(/[A-Z]/g, (c) => `-${c.toLowerCase()}`);
const snake = (key) => key.replace(/[A-Z]/g, (c) => `_${c}`).toUpperCase();

function usage() {
  const lines = ['usage: node server/server.js [--config FILE] [options]',
    'Every option may also be set in the JSON file under its camelCase name, or in the',
    'environment as ZUL_RENDEZVOUS_<NAME> (e.g. ZUL_RENDEZVOUS_TURN_SECRET); later wins:',
    'file, environment, command line.'];
  for (const [key, type, , help] of SETTINGS) {
    const flag = `--${kebab(key)}${type === 'bool' ? '' : ' VALUE'}`;
    lines.push(`  ${flag.padEnd(30)} ${help}`);
    if (type === 'list') lines.push(`  ${''.padEnd(30)} (--${kebab(key).replace(/s$/, '').replace(/ie$/, 'y')} adds one)`);
  }
  return lines.join('\n');
}

function convert(key, type, value, where) {
  const fail = (what) => { throw new Error(`${where}: ${key} ${what}`); };
  switch (type) {
    case 'bool':
      if (typeof value === 'boolean') return value;
      if (['1', 'true', 'yes', 'on', ''].includes(String(value))) return true;
      if (['0', 'false', 'no', 'off'].includes(String(value))) return false;
      return fail('must be true or false');
    case 'int':
    case 'port': {
      const number = typeof value === 'number' ? value : /^\d+$/.test(value) ? Number(value) : NaN;
      if (!Number.isSafeInteger(number) || number < 0) fail('must be a whole number');
      if (type === 'port' && number > 65535) fail('must be a port (0 to 65535)');
      return number;
    }
    case 'list':
      if (Array.isArray(value) && value.every((v) => typeof v === 'string')) return value;
      if (typeof value === 'string') return value.split(',').map((s) => s.trim()).filter(Boolean);
      return fail('must be a list of strings');
    default:
      if (typeof value !== 'string') fail('must be a string');
      return value;
  }
}

// argv without the program; env like process.env. Throws Error with a
// message that names the bad setting and where it came from.
function loadConfig(argv, env = process.env) {
  const types = new Map(SETTINGS.map(([key, type]) => [key, type]));
  const config = Object.fromEntries(SETTINGS.map(([key, , initial]) =>
    [key, Array.isArray(initial) ? [...initial] : initial]));
  const flags = new Map(SETTINGS.map(([key]) => [`--${kebab(key)}`, key]));
  // A list's flag in the singular adds one item: --turn-url A --turn-url B.
  for (const [key, type] of types) if (type === 'list') flags.set(`--${kebab(key).replace(/s$/, '').replace(/ie$/, 'y')}`, key);
  // The command line first into its own object, so that it can win at the end.
  const fromArgs = {};
  let configFile = env.ZUL_RENDEZVOUS_CONFIG || null;
  const lists = new Set();
  for (let i = 0; i < argv.length; i += 1) {
    let flag = argv[i];
    let value;
    const eq = flag.indexOf('=');
    if (flag.startsWith('--') && eq > 0) [flag, value] = [flag.slice(0, eq), flag.slice(eq + 1)];
    if (flag === '--help' || flag === '-h') return { help: usage() };
    const key = flag === '--config' ? 'config' : flags.get(flag);
    if (!key) throw new Error(`unknown option ${flag}`);
    if (types.get(key) === 'bool' && value === undefined) {
      fromArgs[key] = true;
      continue;
    }
    if (value === undefined) {
      i += 1;
      if (i >= argv.length) throw new Error(`${flag} needs a value`);
      value = argv[i];
    }
    if (key === 'config') configFile = value;
    else if (types.get(key) === 'list') {
      // Repeated list flags add up.
      if (!lists.has(key)) fromArgs[key] = [];
      lists.add(key);
      fromArgs[key].push(...convert(key, 'list', value, flag));
    } else fromArgs[key] = convert(key, types.get(key), value, flag);
  }
  let fileSettings = {};
  if (configFile) {
    let parsed;
    try {
      parsed = JSON.parse(fs.readFileSync(configFile, 'utf8'));
    } catch (error) {
      throw new Error(`config file ${configFile}: ${error.message}`);
    }
    if (!parsed || typeof parsed !== 'object' || Array.isArray(parsed)) {
      throw new Error(`config file ${configFile}: must hold a JSON object`);
    }
    fileSettings = parsed;
    for (const [key, value] of Object.entries(parsed)) {
      if (!types.has(key)) throw new Error(`config file ${configFile}: unknown setting ${key}`);
      config[key] = convert(key, types.get(key), value, `config file ${configFile}`);
    }
  }
  for (const [key, type] of types) {
    const name = `ZUL_RENDEZVOUS_${snake(key)}`;
    if (env[name] !== undefined && env[name] !== '') config[key] = convert(key, type, env[name], name);
  }
  if (env.REDIS_URL && !env.ZUL_RENDEZVOUS_REDIS_URL) config.redisUrl = env.REDIS_URL;
  Object.assign(config, fromArgs);
  const explicit = new Set(Object.keys(fromArgs).concat(Object.keys(fileSettings),
    [...types.keys()].filter((key) => env[`ZUL_RENDEZVOUS_${snake(key)}`])));
  return { config: finish(config, env, explicit) };
}

function finish(config, env, explicit = new Set()) {
  const problems = [];
  // A development server on a developer's machine: no rate limits unless asked for.
  if (config.dev) {
    for (const key of ['pairingPerMinute', 'upgradesPerMinute']) if (!explicit.has(key)) config[key] = 0;
  }
  if (Boolean(config.tlsCert) !== Boolean(config.tlsKey)) problems.push('tlsCert and tlsKey go together');
  if (config.turnUrls.length > 0 && !config.turnSecret) problems.push('turnUrls need turnSecret');
  if (config.tlsPort !== null && (!config.dev || !config.tlsCert)) {
    problems.push('tlsPort is for --dev with tlsCert and tlsKey');
  }
  if (config.tamperOfferFingerprint && !config.dev) problems.push('tamperOfferFingerprint is for --dev only');
  if (config.maxMessageBytes < 1024) problems.push('maxMessageBytes must be at least 1024');
  if (config.pingSeconds < 1 || config.handshakeSeconds < 1) {
    problems.push('pingSeconds and handshakeSeconds must be at least 1');
  }
  if (config.logFormat === null) config.logFormat = config.dev ? 'text' : 'json';
  if (!['json', 'text'].includes(config.logFormat)) problems.push('logFormat must be json or text');
  if (config.publicUrl !== null) {
    try {
      const url = new URL(config.publicUrl);
      if (!['http:', 'https:'].includes(url.protocol)) throw new Error();
    } catch {
      problems.push('publicUrl must be an http or https address');
    }
  }
  const loopback = ['127.0.0.1', '::1', 'localhost'].includes(config.host);
  // Plain HTTP on a public address carries pairing secrets in the clear.
  if (!config.dev && !loopback && !config.tlsCert && config.trustedProxies.length === 0) {
    problems.push(`plain HTTP on ${config.host}: give tlsCert and tlsKey, or listen on loopback ` +
      'behind a TLS proxy named in trustedProxies');
  }
  if (problems.length > 0) throw new Error(problems.join('; '));
  if (config.stateFile === null && !config.dev && !config.redisUrl) {
    config.stateFile = path.join(env.STATE_DIRECTORY?.split(':')[0] || '.', 'rendezvous-state.json');
  }
  return config;
}

module.exports = { loadConfig, usage, SETTINGS };

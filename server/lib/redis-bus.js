'use strict';
// Shared state for many instances in Redis (ioredis): which instance holds
// each agent (a key with expiry, refreshed while the agent stays, and only
// believed while that instance's own heartbeat key lives), events between
// instances over pub/sub (a channel per instance), and the atomic operations
// that keep pairing offers one-time, nonces single-use, session counts and
// revoked lists consistent. Redis keeps the lasting state itself (its RDB or
// AOF persistence).

const crypto = require('node:crypto');
const Redis = require('ioredis');

// Presence is believed only while its instance's heartbeat (6 s) lives, so
// its own expiry only bounds what a dead instance leaves behind; it is
// renewed a few hundred keys per heartbeat, never all at once (a burst of
// thousands of scripts would hold Redis and delay relayed messages).
const PRESENCE_SECONDS = 86400;
const HEARTBEAT_SECONDS = 6;
const REFRESH_PER_BEAT = 500;

const SCRIPTS = {
  // KEYS[1] presence key; ARGV[1] instance: refresh it while it is ours, and
  // set it again if it expired meanwhile (Redis was away), never over another's.
  refreshAgent: [1, `local v = redis.call('GET', KEYS[1])
      if v == ARGV[1] or not v then return redis.call('SET', KEYS[1], ARGV[1], 'EX', ARGV[2]) end
      return 0`],
  releaseAgent: [1, `if redis.call('GET', KEYS[1]) == ARGV[1] then
      return redis.call('DEL', KEYS[1]) end return 0`],
  // The holder of an agent, if its instance is alive.
  locateAgent: [1, `local i = redis.call('GET', KEYS[1])
      if i and redis.call('EXISTS', ARGV[1] .. i) == 1 then return i end return false`],
  // KEYS: offer, used marker; ARGV: agentId, now, ttl of the marker.
  takeOffer: [2, `local v = redis.call('GET', KEYS[1])
      if not v then return 'unknown' end
      local offer = cjson.decode(v)
      if offer.agentId ~= ARGV[1] then return 'unknown' end
      if redis.call('EXISTS', KEYS[2]) == 1 then return 'used' end
      if offer.expiresAt < tonumber(ARGV[2]) then return 'expired' end
      redis.call('SET', KEYS[2], '1', 'EX', ARGV[3])
      return 'ok'`],
  // Replaces a set; returns the previous members.
  replaceSet: [1, `local old = redis.call('SMEMBERS', KEYS[1])
      redis.call('DEL', KEYS[1])
      for i = 1, #ARGV, 500 do
        redis.call('SADD', KEYS[1], unpack(ARGV, i, math.min(i + 499, #ARGV))) end
      return old`],
};

class RedisBus {
  constructor({ url, log, prefix = 'zul:' }) {
    this.instanceId = crypto.randomBytes(6).toString('hex');
    this.log = log;
    this.prefix = prefix;
    this.url = url;
    this.handler = () => {};
    this.held = new Set(); // agents held here, refreshed by the timer
    const options = { lazyConnect: true, maxRetriesPerRequest: 2, enableAutoPipelining: true };
    this.redis = new Redis(url, options);
    this.subscriber = new Redis(url, options);
    for (const [name, [keys, lua]] of Object.entries(SCRIPTS)) {
      this.redis.defineCommand(name, { numberOfKeys: keys, lua });
    }
    for (const connection of [this.redis, this.subscriber]) {
      connection.on('error', (error) => this.log.warn(`redis: ${error.message}`));
    }
    this.subscriber.on('messageBuffer', (channel, payload) => {
      let event;
      try {
        event = JSON.parse(payload.toString('utf8'));
      } catch {
        return;
      }
      this.handler(event);
    });
  }

  get kind() { return `redis (${this.redactedUrl()})`; }

  redactedUrl() {
    try {
      const url = new URL(this.url);
      url.username = '';
      url.password = '';
      return url.toString();
    } catch {
      return 'redis';
    }
  }

  key(...parts) { return this.prefix + parts.join(':'); }

  async start() {
    await this.redis.connect();
    await this.subscriber.connect();
    await this.subscriber.subscribe(this.key('i', this.instanceId));
    await this.heartbeat();
    this.timer = setInterval(() => this.heartbeat().catch(() => {}), 2000);
    this.timer.unref();
  }

  async heartbeat() {
    const pipeline = this.redis.pipeline();
    pipeline.set(this.key('instance', this.instanceId), '1', 'EX', HEARTBEAT_SECONDS);
    if (!this.refreshing || this.refreshing.done) {
      this.refreshing = this.held.values();
      this.refreshing.done = false;
    }
    for (let i = 0; i < REFRESH_PER_BEAT; i += 1) {
      const next = this.refreshing.next();
      if (next.done) {
        this.refreshing.done = true;
        break;
      }
      pipeline.refreshAgent(this.key('agent', next.value), this.instanceId, PRESENCE_SECONDS);
    }
    await pipeline.exec();
  }

  async healthy() {
    try {
      return (await this.redis.ping()) === 'PONG';
    } catch {
      return false;
    }
  }

  async close() {
    clearInterval(this.timer);
    const pipeline = this.redis.pipeline();
    pipeline.del(this.key('instance', this.instanceId));
    for (const agentId of this.held) {
      pipeline.releaseAgent(this.key('agent', agentId), this.instanceId);
    }
    await pipeline.exec().catch(() => {});
    this.redis.disconnect();
    this.subscriber.disconnect();
  }

  onEvent(handler) { this.handler = handler; }

  async deliver(instanceId, event) {
    if (instanceId === this.instanceId) {
      this.handler(event);
      return;
    }
    await this.redis.publish(this.key('i', instanceId), JSON.stringify(event));
  }

  async claimAgent(agentId) {
    this.held.add(agentId);
    return this.redis.set(this.key('agent', agentId), this.instanceId, 'EX', PRESENCE_SECONDS, 'GET');
  }

  async releaseAgent(agentId) {
    this.held.delete(agentId);
    await this.redis.releaseAgent(this.key('agent', agentId), this.instanceId);
  }

  // Held elsewhere now: stop refreshing it, leave the key to its holder.
  forgetAgent(agentId) { this.held.delete(agentId); }

  async locateAgent(agentId) {
    return this.redis.locateAgent(this.key('agent', agentId), this.key('instance', ''));
  }

  async takeNonce(key, ttlSeconds) {
    return (await this.redis.set(this.key('nonce', key), '1', 'EX', ttlSeconds, 'NX')) === 'OK';
  }

  async putOffer(secret, offer) {
    const ttl = Math.max(1, offer.expiresAt - Math.floor(Date.now() / 1000)) + 600;
    await this.redis.set(this.key('offer', secret), JSON.stringify(offer), 'EX', ttl);
    return true;
  }

  async takeOffer(secret, agentId, now = Math.floor(Date.now() / 1000)) {
    return this.redis.takeOffer(this.key('offer', secret), this.key('offer-used', secret), agentId,
      now, 86400);
  }

  async countSession(key) {
    const redisKey = this.key('sessions', key);
    const [[, count]] = await this.redis.multi().incr(redisKey).expire(redisKey, 86400).exec();
    return count;
  }

  async forgetSessions(key) { await this.redis.del(this.key('sessions', key)); }

  async revokedDevices(agentId) {
    return new Set(await this.redis.smembers(this.key('revoked', agentId)));
  }

  async setRevoked(agentId, ids) {
    return new Set(await this.redis.replaceSet(this.key('revoked', agentId), ...ids));
  }
}

module.exports = { RedisBus };

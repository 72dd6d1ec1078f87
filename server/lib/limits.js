'use strict';
// Per-address rate limits: a token bucket per client address, refilled
// continuously. The table of addresses is bounded: when it is full, buckets
// that are full again (idle addresses) are dropped first, then the oldest.

class RateLimiter {
  // `perMinute` requests a minute on average, bursts up to `burst`; 0: no limit.
  constructor(perMinute, { burst = Math.max(1, Math.ceil(perMinute / 4)), maxAddresses = 65536,
    now = () => Date.now() } = {}) {
    this.rate = perMinute / 60000;
    this.burst = burst;
    this.maxAddresses = maxAddresses;
    this.now = now;
    this.buckets = new Map(); // address -> { tokens, at }
  }

  // True when `address` may go ahead now (and takes a token).
  take(address) {
    if (this.rate === 0) return true;
    const now = this.now();
    let bucket = this.buckets.get(address);
    if (bucket) {
      bucket.tokens = Math.min(this.burst, bucket.tokens + (now - bucket.at) * this.rate);
      bucket.at = now;
      // Most recently used last, so the oldest go first when the table is full.
      this.buckets.delete(address);
    } else {
      if (this.buckets.size >= this.maxAddresses) this.evict(now);
      bucket = { tokens: this.burst, at: now };
    }
    this.buckets.set(address, bucket);
    if (bucket.tokens < 1) return false;
    bucket.tokens -= 1;
    return true;
  }

  evict(now) {
    for (const [address, bucket] of this.buckets) {
      if (bucket.tokens + (now - bucket.at) * this.rate >= this.burst) this.buckets.delete(address);
    }
    while (this.buckets.size >= this.maxAddresses) {
      this.buckets.delete(this.buckets.keys().next().value);
    }
  }
}

module.exports = { RateLimiter };

'use strict';
// Prometheus metrics (prom-client), read at /metrics.

const client = require('prom-client');

function makeMetrics(bus) {
  const registry = new client.Registry();
  client.collectDefaultMetrics({ register: registry, prefix: 'zul_rendezvous_' });
  const metrics = {
    registry,
    connections: new client.Gauge({ name: 'zul_rendezvous_connections', help: 'open WebSockets',
      labelNames: ['role'], registers: [registry] }),
    relayed: new client.Counter({ name: 'zul_rendezvous_messages_relayed_total',
      help: 'signalling messages relayed', labelNames: ['direction'], registers: [registry] }),
    pairings: new client.Counter({ name: 'zul_rendezvous_pairings_total',
      help: 'pairing steps: offered, requested, granted', labelNames: ['step'], registers: [registry] }),
    refusals: new client.Counter({ name: 'zul_rendezvous_refusals_total',
      help: 'requests and connections refused, by reason', labelNames: ['reason'], registers: [registry] }),
    relayLatency: new client.Histogram({ name: 'zul_rendezvous_relay_latency_seconds',
      help: "from an agent's message arriving to its sending to the phone (across instances too)",
      buckets: [0.0005, 0.001, 0.002, 0.005, 0.01, 0.02, 0.05, 0.1, 0.5], registers: [registry] }),
  };
  for (const role of ['agent', 'phone']) metrics.connections.set({ role }, 0);
  new client.Gauge({ name: 'zul_rendezvous_info', help: 'instance and shared-state engine',
    labelNames: ['instance', 'state'], registers: [registry] }).set({ instance: bus.instanceId,
    state: bus.constructor.name === 'RedisBus' ? 'redis' : 'embedded' }, 1);
  return metrics;
}

module.exports = { makeMetrics };

// One MQTT.js client, driven by JSON lines on standard input; replies and events are JSON lines on standard output.
'use strict';
const path = require('path');
const mqtt = require(path.join(process.env.ZEB_NPM, 'node_modules', 'mqtt'));

let client = null;
const say = (what) => process.stdout.write(JSON.stringify(what) + '\n');
const reply = (id, error, value) => say({ reply: id, error: error ? String(error.message || error) : null, value });

const operations = {
  connect(id, { options }) {
    client = mqtt.connect('mqtt://127.0.0.1:1883', { reconnectPeriod: 0, ...options });
    client.once('connect', (connack) => reply(id, null, { code: connack.reasonCode ?? connack.returnCode ?? 0,
      properties: connack.properties ?? null }));
    client.on('message', (topic, payload, packet) => say({ event: 'message', topic, qos: packet.qos,
      retain: packet.retain, payload: payload.toString('hex'), properties: packet.properties ?? null }));
    client.on('packetreceive', (packet) => say({ event: 'packet', cmd: packet.cmd,
      code: packet.reasonCode ?? null }));
    client.on('close', () => say({ event: 'close' }));
    client.on('error', (error) => say({ event: 'error', text: String(error.message || error) }));
  },
  subscribe(id, { filters, options }) {
    const wanted = Object.fromEntries(filters.map(([filter, qos]) => [filter, { qos, ...options }]));
    client.subscribe(wanted, (error, granted, packet) => reply(id, packet ? null : error,
      packet ? packet.granted : null));
  },
  unsubscribe(id, { filters, options }) {
    client.unsubscribe(filters, (error) => reply(id, error));
  },
  publish(id, { topic, payload, options }) {
    client.publish(topic, Buffer.from(payload, 'hex'), options, (error) => reply(id, error));
  },
  end(id) {
    client.end(false, {}, () => { reply(id); process.exit(0); });
  },
};

require('readline').createInterface({ input: process.stdin }).on('line', (line) => {
  const { id, op, ...rest } = JSON.parse(line);
  operations[op](id, rest);
}).on('close', () => process.exit(0));

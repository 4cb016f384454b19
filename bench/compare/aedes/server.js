// aedes over plain TCP, as it comes: state in memory, nothing logged.
import net from 'node:net'
import { Aedes } from 'aedes'

const [host, port] = process.argv.slice(2)
const broker = await Aedes.createBroker()
net.createServer(broker.handle).listen({ host, port: Number(port) })
process.on('SIGTERM', () => process.exit(0))

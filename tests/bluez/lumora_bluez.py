'''A scripted bluetoothd (BlueZ 5.66) for the BlueZ backend's tests.

Load it into python3-dbusmock on a private bus:

    DBUS_SYSTEM_BUS_ADDRESS=unix:path=... /usr/bin/python3 -m dbusmock \
        --template tests/bluez/lumora_bluez.py -l LOG [-p '{"adapters": [...]}']

It owns org.bluez and behaves the way the 5.66 sources read, where the
backend depends on it:
- adapters (/org/bluez/hciN) with Powered; powering off ends every discovery
  session and filter, sets Discovering false and drops every link, while
  registered advertisements and applications stay;
- discovery per client (SetDiscoveryFilter, StartDiscovery, StopDiscovery,
  NotReady while off); while anyone discovers, the advertisers of the "air"
  are reported: a Device1 object on first sight (InterfacesAdded), then an
  RSSI change per report, ManufacturerData/Name/UUIDs only when they changed
  (or always with DuplicateData). Report mode "stream" reports every 20 ms,
  "once" reports each advertiser once per StartDiscovery (a controller's
  duplicate filter);
- Device1.Connect/Disconnect with accept/ignore/refuse behaviours; an
  accepted link exports the device's GATT database (GattService1 and
  GattCharacteristic1 objects named serviceXXXX/charYYYY by handle) and then
  sets ServicesResolved; ReadValue replies and then echoes Value;
  StartNotify sets Notifying;
- LEAdvertisingManager1 and GattManager1 that read the registering client's
  objects back (GetManagedObjects, Properties.GetAll) before they reply, as
  bluetoothd does, and that can Release advertisements;
- a remote central that calls the registered applications' ReadValue and
  WriteValue with the options bluetoothd passes (device, mtu, link, offset).

Control interface org.lumora.BluezMock on "/"; State() returns JSON.
'''

import json

import dbus
import dbus.service
from gi.repository import GLib

from dbusmock import mockobject

BUS_NAME = 'org.bluez'
MAIN_OBJ = '/'
MAIN_IFACE = 'org.lumora.BluezMock'
SYSTEM_BUS = True
IS_OBJECT_MANAGER = True

ADAPTER = 'org.bluez.Adapter1'
DEVICE = 'org.bluez.Device1'
SERVICE = 'org.bluez.GattService1'
CHRC = 'org.bluez.GattCharacteristic1'
ADV_MANAGER = 'org.bluez.LEAdvertisingManager1'
GATT_MANAGER = 'org.bluez.GattManager1'
ADVERTISEMENT = 'org.bluez.LEAdvertisement1'
PROPS = dbus.PROPERTIES_IFACE
OM = 'org.freedesktop.DBus.ObjectManager'
ERR = 'org.bluez.Error.'

REMOTE_CENTRAL = 'C0:FF:EE:00:00:01'

# name -> adapter state
ADAPTERS = {}
# remote central operation id -> result
OPS = {}
MOCK = {}


class BluezError(dbus.exceptions.DBusException):
    def __init__(self, name, message=''):
        super().__init__(message, name=ERR + name)


def hexs(data):
    return bytes(int(b) for b in data).hex()


def plain(value):
    '''dbus-python values as JSON-friendly ones (byte arrays as hex).'''
    if isinstance(value, dbus.Boolean):
        return bool(value)
    if isinstance(value, (bytes, dbus.ByteArray)):
        return bytes(value).hex()
    if isinstance(value, dbus.Array) and (value.signature == 'y' or
                                          (len(value) and isinstance(value[0], dbus.Byte))):
        return hexs(value)
    if isinstance(value, (list, tuple)):
        return [plain(v) for v in value]
    if isinstance(value, dict):
        return {str(k): plain(v) for k, v in value.items()}
    if isinstance(value, int):
        return int(value)
    if isinstance(value, float):
        return float(value)
    return str(value)


def byte_array(data):
    return dbus.Array([dbus.Byte(b) for b in data], signature='y')


def manufacturer(desc):
    return dbus.Dictionary({dbus.UInt16(int(k)): byte_array(bytes.fromhex(v))
                            for k, v in desc.items()}, signature='qv')


def bus():
    return MOCK['main'].bus_name.get_bus()


def obj(path):
    return mockobject.objects[path]


def emit_changed(path, iface, changes):
    target = obj(path)
    target.props.setdefault(iface, {}).update(changes)
    target.EmitSignal(PROPS, 'PropertiesChanged', 'sa{sv}as',
                      [iface, dbus.Dictionary(changes, signature='sv'),
                       dbus.Array([], signature='s')])


def add_object(path, interfaces, methods):
    '''interfaces: iface -> props; methods: iface -> {name: handler}.'''
    main = MOCK['main']
    first = next(iter(interfaces))
    main.AddObject(path, first, interfaces[first], [])
    target = obj(path)
    for iface, props in interfaces.items():
        target.props[iface] = props
    for iface, table in methods.items():
        for name, fn in table.items():
            target.methods.setdefault(iface, {})[name] = (
                fn._dbus_in_signature, fn._dbus_out_signature, '', fn)
    main.EmitSignal(OM, 'InterfacesAdded', 'oa{sa{sv}}',
                    [dbus.ObjectPath(path),
                     dbus.Dictionary({k: dbus.Dictionary(v, signature='sv')
                                      for k, v in interfaces.items()}, signature='sa{sv}')])
    return target


def remove_object(path):
    if path not in mockobject.objects:
        return
    interfaces = [i for i in obj(path).props.keys()]
    MOCK['main'].RemoveObject(path)
    MOCK['main'].EmitSignal(OM, 'InterfacesRemoved', 'oas',
                            [dbus.ObjectPath(path), dbus.Array(interfaces, signature='s')])


def dbus_error_of(exc):
    return {'error': exc.get_dbus_name(), 'message': exc.get_dbus_message() or ''}


# --- the air ---------------------------------------------------------------------------

class Adapter:
    def __init__(self, name, address, peripheral):
        self.name = name
        self.path = '/org/bluez/' + name
        self.address = address
        self.peripheral = peripheral
        self.sessions = {}      # sender -> filter in force
        self.filters = {}       # sender -> last SetDiscoveryFilter
        self.filter_log = []
        self.start_count = 0
        self.stop_count = 0
        self.advertisers = {}   # address -> dict
        self.reported = set()
        self.mode = 'stream'
        self.timer = None
        self.ads = {}           # (sender, path) -> props
        self.apps = {}          # (sender, root) -> managed objects
        self.pending_connects = {}  # device path -> error callback
        self.connect_calls = 0
        self.disconnect_calls = 0
        self.writes = {}        # characteristic path -> [{value, options}]
        self.char_errors = {}   # (path, op) -> (name, message)
        self.last_reported = {}  # address -> props last signalled

    def powered(self):
        return bool(obj(self.path).props[ADAPTER]['Powered'])

    def device_path(self, address):
        return self.path + '/dev_' + address.replace(':', '_').upper()

    def duplicates(self):
        return any(bool(f.get('DuplicateData', False)) for f in self.sessions.values() if f)

    # discovery
    def start_reports(self):
        self.reported.clear()
        if self.timer is None:
            self.timer = GLib.timeout_add(20, self.tick)

    def stop_reports(self):
        if self.timer is not None:
            GLib.source_remove(self.timer)
            self.timer = None

    def tick(self):
        if not self.sessions or not self.powered():
            self.timer = None
            return False
        for address, adv in list(self.advertisers.items()):
            if not adv.get('advertising', True):
                continue
            if self.mode == 'once' and address in self.reported:
                continue
            self.reported.add(address)
            self.report(address, adv)
        return True

    def report(self, address, adv):
        path = self.device_path(address)
        name = adv.get('name')
        rssi = dbus.Int16(adv.get('rssi', -60))
        mdata = manufacturer(adv.get('manufacturer', {}))
        uuids = dbus.Array(adv.get('uuids', []), signature='s')
        if path not in mockobject.objects:
            props = {
                'Address': dbus.String(address),
                'AddressType': dbus.String('public'),
                'Alias': dbus.String(name if name else address.replace(':', '-')),
                'Paired': dbus.Boolean(False),
                'Trusted': dbus.Boolean(False),
                'Blocked': dbus.Boolean(False),
                'LegacyPairing': dbus.Boolean(False),
                'Connected': dbus.Boolean(False),
                'ServicesResolved': dbus.Boolean(False),
                'Adapter': dbus.ObjectPath(self.path),
                'RSSI': rssi,
                'UUIDs': uuids,
            }
            if name:
                props['Name'] = dbus.String(name)
            if adv.get('manufacturer'):
                props['ManufacturerData'] = mdata
            if 'txPower' in adv:
                props['TxPower'] = dbus.Int16(adv['txPower'])
            add_object(path, {DEVICE: props}, {DEVICE: dict(DEVICE_METHODS)})
            self.last_reported[address] = dict(adv)
            return
        last = self.last_reported.get(address, {})
        changes = {'RSSI': rssi}
        if adv.get('manufacturer') and (self.duplicates() or
                                        adv.get('manufacturer') != last.get('manufacturer')):
            changes['ManufacturerData'] = mdata
        if name and name != last.get('name'):
            changes['Name'] = dbus.String(name)
            changes['Alias'] = dbus.String(name)
        if adv.get('uuids', []) != last.get('uuids', []):
            changes['UUIDs'] = uuids
        self.last_reported[address] = dict(adv)
        emit_changed(path, DEVICE, changes)

    # links
    def connected_devices(self):
        return [p for p, o in list(mockobject.objects.items())
                if p.startswith(self.path + '/dev_') and DEVICE in o.props and
                bool(o.props[DEVICE].get('Connected', False))]

    def drop_link(self, path):
        prefix = path + '/'
        for child in sorted([p for p in mockobject.objects if p.startswith(prefix)],
                            reverse=True):
            remove_object(child)
        emit_changed(path, DEVICE, {'ServicesResolved': dbus.Boolean(False)})
        emit_changed(path, DEVICE, {'Connected': dbus.Boolean(False)})

    def resolve_services(self, path, address):
        if path not in mockobject.objects or not obj(path).props[DEVICE]['Connected']:
            return False
        for svc in self.advertisers.get(address, {}).get('gatt', []):
            spath = '%s/service%04x' % (path, svc['handle'])
            add_object(spath, {SERVICE: {
                'UUID': dbus.String(svc['uuid']),
                'Primary': dbus.Boolean(svc.get('primary', True)),
                'Device': dbus.ObjectPath(path),
            }}, {})
            for ch in svc.get('characteristics', []):
                cpath = '%s/char%04x' % (spath, ch['handle'])
                add_object(cpath, {CHRC: {
                    'UUID': dbus.String(ch['uuid']),
                    'Service': dbus.ObjectPath(spath),
                    'Flags': dbus.Array(ch.get('flags', ['read']), signature='s'),
                    'Value': byte_array(bytes.fromhex(ch.get('value', ''))),
                    'Notifying': dbus.Boolean(False),
                }}, {CHRC: dict(CHRC_METHODS)})
        emit_changed(path, DEVICE, {'ServicesResolved': dbus.Boolean(True)})
        return False

    def set_powered(self, powered):
        if powered == self.powered():
            return
        adapter = obj(self.path)
        if not powered:
            # adapter_stop: discovery sessions and filters go, then every link.
            self.sessions.clear()
            self.filters.clear()
            self.stop_reports()
            if adapter.props[ADAPTER]['Discovering']:
                emit_changed(self.path, ADAPTER, {'Discovering': dbus.Boolean(False)})
            for path, fail in list(self.pending_connects.items()):
                fail(BluezError('Failed', 'le-connection-abort-by-local'))
            self.pending_connects.clear()
            for path in self.connected_devices():
                self.drop_link(path)
        changes = {'Powered': dbus.Boolean(powered)}
        if 'PowerState' in adapter.props[ADAPTER]:
            changes['PowerState'] = dbus.String('on' if powered else 'off')
        emit_changed(self.path, ADAPTER, changes)

    def state(self):
        return {
            'powered': self.powered(),
            'discovering': bool(obj(self.path).props[ADAPTER]['Discovering']),
            'sessions': {k: plain(v) if v else None for k, v in self.sessions.items()},
            'filters': self.filter_log,
            'startCount': self.start_count,
            'stopCount': self.stop_count,
            'connectCalls': self.connect_calls,
            'disconnectCalls': self.disconnect_calls,
            'ads': [{'sender': s, 'path': p, 'props': plain(v)}
                    for (s, p), v in self.ads.items()],
            'apps': [{'sender': s, 'root': r, 'objects': plain(v)}
                     for (s, r), v in self.apps.items()],
            'writes': {k: v for k, v in self.writes.items()},
        }


def adapter_of(path):
    for adapter in ADAPTERS.values():
        if path == adapter.path or path.startswith(adapter.path + '/'):
            return adapter
    raise BluezError('DoesNotExist', 'No such adapter')


# --- methods of bluetoothd's objects ---------------------------------------------------------
# Kept in a class body so that dbusmock does not also attach them to "/".

class Handlers:
    # Adapter1
    @dbus.service.method(ADAPTER, in_signature='a{sv}', out_signature='',
                         sender_keyword='sender')
    def SetDiscoveryFilter(self, filter, sender=None):
        adapter = adapter_of(self.path)
        transport = str(filter.get('Transport', 'auto'))
        if transport not in ('auto', 'le', 'bredr'):
            raise BluezError('InvalidArguments', 'Invalid arguments in method call')
        adapter.filters[sender] = dict(filter)
        adapter.filter_log.append(plain(filter))
        if sender in adapter.sessions:
            adapter.sessions[sender] = dict(filter)

    @dbus.service.method(ADAPTER, in_signature='', out_signature='', sender_keyword='sender')
    def StartDiscovery(self, sender=None):
        adapter = adapter_of(self.path)
        if not adapter.powered():
            raise BluezError('NotReady', 'Resource Not Ready')
        if sender in adapter.sessions:
            raise BluezError('InProgress', 'Operation already in progress')
        adapter.sessions[sender] = adapter.filters.get(sender)
        adapter.start_count += 1
        if not self.props[ADAPTER]['Discovering']:
            emit_changed(self.path, ADAPTER, {'Discovering': dbus.Boolean(True)})
        adapter.start_reports()

    @dbus.service.method(ADAPTER, in_signature='', out_signature='', sender_keyword='sender')
    def StopDiscovery(self, sender=None):
        adapter = adapter_of(self.path)
        if sender not in adapter.sessions:
            raise BluezError('Failed', 'No discovery started')
        del adapter.sessions[sender]
        adapter.filters.pop(sender, None)
        adapter.stop_count += 1
        if not adapter.sessions:
            adapter.stop_reports()
            emit_changed(self.path, ADAPTER, {'Discovering': dbus.Boolean(False)})

    # Device1
    @dbus.service.method(DEVICE, in_signature='', out_signature='',
                         async_callbacks=('ok', 'err'))
    def Connect(self, ok=None, err=None):
        adapter = adapter_of(self.path)
        adapter.connect_calls += 1
        address = str(self.props[DEVICE]['Address'])
        behaviour = adapter.advertisers.get(address, {}).get('connect', 'accept')
        if not adapter.powered():
            err(BluezError('NotReady', 'Resource Not Ready'))
        elif self.props[DEVICE]['Connected']:
            err(BluezError('AlreadyConnected', 'Already Connected'))
        elif self.path in adapter.pending_connects:
            err(BluezError('InProgress', 'In Progress'))
        elif behaviour == 'refuse':
            err(BluezError('Failed', 'le-connection-abort-by-local'))
        elif behaviour == 'ignore':
            adapter.pending_connects[self.path] = err
        else:
            emit_changed(self.path, DEVICE, {'Connected': dbus.Boolean(True)})
            ok()
            GLib.timeout_add(5, adapter.resolve_services, self.path, address)

    @dbus.service.method(DEVICE, in_signature='', out_signature='')
    def Disconnect(self):
        adapter = adapter_of(self.path)
        adapter.disconnect_calls += 1
        pending = adapter.pending_connects.pop(self.path, None)
        if pending is not None:
            pending(BluezError('Failed', 'le-connection-abort-by-local'))
            return
        if not self.props[DEVICE]['Connected']:
            raise BluezError('NotConnected', 'Not Connected')
        adapter.drop_link(self.path)

    # GattCharacteristic1 (remote)
    @dbus.service.method(CHRC, in_signature='a{sv}', out_signature='ay',
                         async_callbacks=('ok', 'err'))
    def ReadValue(self, options, ok=None, err=None):
        adapter = adapter_of(self.path)
        failure = adapter.char_errors.get((self.path, 'read'))
        if failure:
            err(dbus.exceptions.DBusException(failure[1], name=failure[0]))
            return
        offset = int(options.get('offset', 0))
        value = bytes(int(b) for b in self.props[CHRC]['Value'])
        ok(byte_array(value[offset:]))
        # bluetoothd refreshes its cached Value after every read.
        emit_changed(self.path, CHRC, {'Value': byte_array(value)})

    @dbus.service.method(CHRC, in_signature='aya{sv}', out_signature='', byte_arrays=True)
    def WriteValue(self, value, options):
        adapter = adapter_of(self.path)
        adapter.writes.setdefault(self.path, []).append(
            {'value': bytes(value).hex(), 'options': plain(options)})
        failure = adapter.char_errors.get((self.path, 'write'))
        if failure:
            raise dbus.exceptions.DBusException(failure[1], name=failure[0])
        self.props[CHRC]['Value'] = byte_array(bytes(value))

    @dbus.service.method(CHRC, in_signature='', out_signature='')
    def StartNotify(self):
        emit_changed(self.path, CHRC, {'Notifying': dbus.Boolean(True)})

    @dbus.service.method(CHRC, in_signature='', out_signature='')
    def StopNotify(self):
        emit_changed(self.path, CHRC, {'Notifying': dbus.Boolean(False)})

    # LEAdvertisingManager1
    @dbus.service.method(ADV_MANAGER, in_signature='oa{sv}', out_signature='',
                         sender_keyword='sender', async_callbacks=('ok', 'err'))
    def RegisterAdvertisement(self, path, options, sender=None, ok=None, err=None):
        adapter = adapter_of(self.path)
        key = (str(sender), str(path))
        if key in adapter.ads:
            err(BluezError('AlreadyExists', 'Already Exists'))
            return
        if len(adapter.ads) >= int(self.props[ADV_MANAGER]['SupportedInstances']):
            err(BluezError('NotPermitted', 'Maximum advertisements reached'))
            return

        def got_props(props):
            if not valid_advertisement(props):
                err(BluezError('Failed', 'Failed to parse advertisement.'))
                return
            adapter.ads[key] = props
            emit_changed(self.path, ADV_MANAGER,
                         {'ActiveInstances': dbus.Byte(len(adapter.ads))})
            ok()

        def get_all(*_):
            bus().call_async(sender, path, PROPS, 'GetAll', 's', [ADVERTISEMENT],
                             got_props, lambda e: err(BluezError('Failed', 'Failed to parse advertisement.')))

        # As bluetoothd's GDBusClient: ObjectManager first, then the properties.
        bus().call_async(sender, path, OM, 'GetManagedObjects', '', [], get_all, get_all)

    @dbus.service.method(ADV_MANAGER, in_signature='o', out_signature='', sender_keyword='sender')
    def UnregisterAdvertisement(self, path, sender=None):
        adapter = adapter_of(self.path)
        key = (str(sender), str(path))
        if key not in adapter.ads:
            raise BluezError('DoesNotExist', 'Does Not Exist')
        del adapter.ads[key]
        emit_changed(self.path, ADV_MANAGER, {'ActiveInstances': dbus.Byte(len(adapter.ads))})

    # GattManager1
    @dbus.service.method(GATT_MANAGER, in_signature='oa{sv}', out_signature='',
                         sender_keyword='sender', async_callbacks=('ok', 'err'))
    def RegisterApplication(self, root, options, sender=None, ok=None, err=None):
        adapter = adapter_of(self.path)
        key = (str(sender), str(root))
        if key in adapter.apps:
            err(BluezError('AlreadyExists', 'Already Exists'))
            return

        def got_objects(objects):
            services = [p for p, i in objects.items() if SERVICE in i]
            if not services:
                err(BluezError('Failed', 'No valid service object found'))
                return
            for path, interfaces in objects.items():
                chrc = interfaces.get(CHRC)
                if chrc is not None and ('UUID' not in chrc or 'Flags' not in chrc or
                                         str(chrc.get('Service')) not in services):
                    err(BluezError('Failed', 'Failed to create characteristic'))
                    return
            adapter.apps[key] = objects
            ok()

        bus().call_async(sender, root, OM, 'GetManagedObjects', '', [], got_objects,
                         lambda e: err(BluezError('Failed', 'Failed to read application')))

    @dbus.service.method(GATT_MANAGER, in_signature='o', out_signature='', sender_keyword='sender')
    def UnregisterApplication(self, root, sender=None):
        adapter = adapter_of(self.path)
        key = (str(sender), str(root))
        if key not in adapter.apps:
            raise BluezError('DoesNotExist', 'Does Not Exist')
        del adapter.apps[key]


DEVICE_METHODS = {n: Handlers.__dict__[n] for n in ('Connect', 'Disconnect')}
CHRC_METHODS = {n: Handlers.__dict__[n]
                for n in ('ReadValue', 'WriteValue', 'StartNotify', 'StopNotify')}


def valid_advertisement(props):
    '''advertising.c's parse: a known type and legacy data within 31 bytes.'''
    if str(props.get('Type', '')) not in ('peripheral', 'broadcast'):
        return False
    length = 3 if str(props['Type']) == 'peripheral' else 0  # kernel-managed Flags
    for _, data in props.get('ManufacturerData', {}).items():
        length += 4 + len(data)
    sizes = {}
    for uuid in props.get('ServiceUUIDs', []):
        text = str(uuid)
        size = 2 if len(text) == 4 or (len(text) == 36 and text.endswith(
            '-0000-1000-8000-00805f9b34fb') and text.startswith('0000')) else 16
        sizes[size] = sizes.get(size, 0) + size
    for total in sizes.values():
        length += 2 + total
    if 'tx-power' in [str(i) for i in props.get('Includes', [])]:
        length += 3
    return length <= 31


def find_app_characteristic(adapter, uuid):
    for (sender, _), objects in adapter.apps.items():
        for path, interfaces in objects.items():
            chrc = interfaces.get(CHRC)
            if chrc is not None and str(chrc['UUID']).lower() == uuid.lower():
                return sender, path
    raise BluezError('DoesNotExist', 'No registered characteristic ' + uuid)


def remote_options(adapter, offset, mtu):
    options = {'device': dbus.ObjectPath(adapter.device_path(REMOTE_CENTRAL)),
               'mtu': dbus.UInt16(mtu), 'link': dbus.String('LE')}
    if offset:
        options['offset'] = dbus.UInt16(offset)
    return dbus.Dictionary(options, signature='sv')


def start_op():
    op = len(OPS) + 1
    OPS[op] = {'done': False}
    return op


def finish_op(op, result):
    OPS[op] = dict(result, done=True)


# --- control interface (org.lumora.BluezMock on "/") ---------------------------------------

def make_adapter(name, address, powered, peripheral, extra):
    if name in ADAPTERS:
        raise BluezError('AlreadyExists', 'adapter exists')
    adapter = Adapter(name, address, peripheral)
    props = {
        'Address': dbus.String(address),
        'AddressType': dbus.String('public'),
        'Name': dbus.String('lumora-' + name),
        'Alias': dbus.String('lumora-' + name),
        'Class': dbus.UInt32(0),
        'Powered': dbus.Boolean(powered),
        'Discoverable': dbus.Boolean(False),
        'Pairable': dbus.Boolean(True),
        'Discovering': dbus.Boolean(False),
        'UUIDs': dbus.Array([], signature='s'),
        'Roles': dbus.Array(['central', 'peripheral'] if peripheral else ['central'],
                            signature='s'),
    }
    for key, value in extra.items():
        if key == 'Roles':
            props[key] = dbus.Array([str(v) for v in value], signature='s')
        elif key == 'PowerState':
            props[key] = dbus.String(value)
        elif key == 'NoRoles':
            props.pop('Roles', None)
    interfaces = {ADAPTER: props}
    methods = {ADAPTER: {n: Handlers.__dict__[n]
                         for n in ('SetDiscoveryFilter', 'StartDiscovery', 'StopDiscovery')}}
    if peripheral:
        interfaces[ADV_MANAGER] = {
            'SupportedInstances': dbus.Byte(5),
            'ActiveInstances': dbus.Byte(0),
            'SupportedIncludes': dbus.Array(['tx-power', 'appearance', 'local-name'],
                                            signature='s'),
        }
        interfaces[GATT_MANAGER] = {}
        methods[ADV_MANAGER] = {n: Handlers.__dict__[n]
                                for n in ('RegisterAdvertisement', 'UnregisterAdvertisement')}
        methods[GATT_MANAGER] = {n: Handlers.__dict__[n]
                                 for n in ('RegisterApplication', 'UnregisterApplication')}
    ADAPTERS[name] = adapter
    add_object(adapter.path, interfaces, methods)


@dbus.service.method(MAIN_IFACE, in_signature='s', out_signature='')
def AddAdapter(self, desc):
    '''JSON {"name", "address", "powered", "peripheral", "props": {...}}.'''
    s = json.loads(desc)
    make_adapter(s['name'], s.get('address', '00:AA:01:00:00:00'), s.get('powered', True),
                 s.get('peripheral', True), s.get('props', {}))


@dbus.service.method(MAIN_IFACE, in_signature='s', out_signature='')
def RemoveAdapter(self, name):
    adapter = ADAPTERS.pop(name)
    adapter.stop_reports()
    for path in sorted([p for p in mockobject.objects if p.startswith(adapter.path + '/')],
                       reverse=True):
        remove_object(path)
    remove_object(adapter.path)


@dbus.service.method(MAIN_IFACE, in_signature='sb', out_signature='')
def SetPowered(self, name, powered):
    ADAPTERS[name].set_powered(bool(powered))


@dbus.service.method(MAIN_IFACE, in_signature='ss', out_signature='')
def SetReportMode(self, name, mode):
    ADAPTERS[name].mode = str(mode)


@dbus.service.method(MAIN_IFACE, in_signature='ss', out_signature='')
def SetAdvertiser(self, name, desc):
    '''JSON {"address", "name", "rssi", "manufacturer": {"76": "hex"}, "uuids",
    "txPower", "advertising", "connect": accept|ignore|refuse, "gatt": [...]};
    updates the advertiser when it exists.'''
    s = json.loads(desc)
    adapter = ADAPTERS[name]
    adapter.advertisers.setdefault(s['address'], {}).update(s)


@dbus.service.method(MAIN_IFACE, in_signature='ss', out_signature='')
def DropLink(self, name, address):
    adapter = ADAPTERS[name]
    path = adapter.device_path(address)
    if path in mockobject.objects and obj(path).props[DEVICE]['Connected']:
        adapter.drop_link(path)


@dbus.service.method(MAIN_IFACE, in_signature='ssss', out_signature='')
def SetCharacteristicError(self, path, op, name, message):
    adapter = adapter_of(path)
    if name:
        adapter.char_errors[(str(path), str(op))] = (str(name), str(message))
    else:
        adapter.char_errors.pop((str(path), str(op)), None)


@dbus.service.method(MAIN_IFACE, in_signature='say', out_signature='b', byte_arrays=True)
def Notify(self, path, value):
    target = obj(path)
    if not target.props[CHRC]['Notifying']:
        return False
    emit_changed(path, CHRC, {'Value': byte_array(bytes(value))})
    return True


@dbus.service.method(MAIN_IFACE, in_signature='s', out_signature='')
def ReleaseAdvertisements(self, name):
    adapter = ADAPTERS[name]
    for (sender, path) in list(adapter.ads.keys()):
        bus().call_async(sender, path, ADVERTISEMENT, 'Release', '', [], None, None)
    adapter.ads.clear()


@dbus.service.method(MAIN_IFACE, in_signature='ssqq', out_signature='u')
def RemoteRead(self, name, uuid, offset, mtu):
    adapter = ADAPTERS[name]
    sender, path = find_app_characteristic(adapter, str(uuid))
    op = start_op()
    bus().call_async(sender, path, CHRC, 'ReadValue', 'a{sv}',
                     [remote_options(adapter, int(offset), int(mtu))],
                     lambda value: finish_op(op, {'value': hexs(value)}),
                     lambda e: finish_op(op, dbus_error_of(e)))
    return op


@dbus.service.method(MAIN_IFACE, in_signature='ssayqq', out_signature='u', byte_arrays=True)
def RemoteWrite(self, name, uuid, value, offset, mtu):
    adapter = ADAPTERS[name]
    sender, path = find_app_characteristic(adapter, str(uuid))
    op = start_op()
    bus().call_async(sender, path, CHRC, 'WriteValue', 'aya{sv}',
                     [byte_array(bytes(value)), remote_options(adapter, int(offset), int(mtu))],
                     lambda *_: finish_op(op, {'value': ''}),
                     lambda e: finish_op(op, dbus_error_of(e)))
    return op


@dbus.service.method(MAIN_IFACE, in_signature='sss', out_signature='u')
def Probe(self, owner, path, interface):
    '''Asks `owner` for the properties of `path` (asynchronously: the owner
    may be the test process itself); the op records them or the error.'''
    op = start_op()
    bus().call_async(owner, path, PROPS, 'GetAll', 's', [interface],
                     lambda props: finish_op(op, {'value': plain(props)}),
                     lambda e: finish_op(op, dbus_error_of(e)))
    return op


@dbus.service.method(MAIN_IFACE, in_signature='', out_signature='s')
def State(self):
    return json.dumps({'adapters': {n: a.state() for n, a in ADAPTERS.items()},
                       'ops': {str(k): v for k, v in OPS.items()}})


def client_gone(name, old, new):
    '''bluetoothd forgets what a client held when it leaves the bus.'''
    if new or not old:
        return
    for adapter in ADAPTERS.values():
        adapter.sessions.pop(old, None)
        adapter.filters.pop(old, None)
        for key in [k for k in adapter.ads if k[0] == old]:
            del adapter.ads[key]
        for key in [k for k in adapter.apps if k[0] == old]:
            del adapter.apps[key]
        if not adapter.sessions and adapter.timer is not None:
            adapter.stop_reports()
            emit_changed(adapter.path, ADAPTER, {'Discovering': dbus.Boolean(False)})


def load(mock, parameters):
    MOCK['main'] = mock
    mockobject.objects[mock.path] = mock
    mock.AddObject('/org/bluez', 'org.bluez.AgentManager1', {}, [])
    adapters = parameters.get('adapters',
                              [{'name': 'hci0', 'address': '00:AA:01:00:00:00'}])
    for desc in adapters:
        make_adapter(desc['name'], desc.get('address', '00:AA:01:00:00:00'),
                     desc.get('powered', True), desc.get('peripheral', True),
                     desc.get('props', {}))
    mock.bus_name.get_bus().add_signal_receiver(
        client_gone, signal_name='NameOwnerChanged', dbus_interface='org.freedesktop.DBus',
        path='/org/freedesktop/DBus')
    # The harness waits for this line: org.bluez is owned and the objects exist.
    print('lumora-bluez-mock ready', flush=True)

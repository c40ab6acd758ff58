'''A scripted bluetoothd (BlueZ 5.66) for the BlueZ backend's tests, loaded into
python3-dbusmock on a private bus (tests/bluez/MockBluez.h starts it):

    DBUS_SYSTEM_BUS_ADDRESS=... /usr/bin/python3 -m dbusmock \
        --template tests/bluez/lumora_bluez.py -l LOG [-p '{"adapters": [...]}']

It behaves the way the 5.66 sources read where the backend depends on it;
docs/bluez.md lists what it models. Control interface org.lumora.BluezMock on
"/"; State() returns JSON.
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

REMOTE_CENTRAL = 'C0:FF:EE:00:00:01'

ADAPTERS = {}  # name -> Adapter
OPS = {}       # remote central operation id -> result
MOCK = {}


class BluezError(dbus.exceptions.DBusException):
    def __init__(self, name, message=''):
        super().__init__(message, name='org.bluez.Error.' + name)


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
    return str(value)


def byte_array(data):
    return dbus.Array([dbus.Byte(b) for b in data], signature='y')


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
    '''interfaces: iface -> props; methods: iface -> names of Handlers methods.'''
    main = MOCK['main']
    first = next(iter(interfaces))
    main.AddObject(path, first, interfaces[first], [])
    target = obj(path)
    target.props.update(interfaces)
    for iface, names in methods.items():
        for name in names:
            fn = Handlers.__dict__[name]
            target.methods.setdefault(iface, {})[name] = (
                fn._dbus_in_signature, fn._dbus_out_signature, '', fn)
    main.EmitSignal(OM, 'InterfacesAdded', 'oa{sa{sv}}',
                    [dbus.ObjectPath(path),
                     dbus.Dictionary({k: dbus.Dictionary(v, signature='sv')
                                      for k, v in interfaces.items()}, signature='sa{sv}')])


def remove_tree(path, keep_root=False):
    '''Removes everything below `path` (and `path` itself), deepest first.'''
    for child in sorted([p for p in mockobject.objects if p.startswith(path + '/') or
                         (p == path and not keep_root)], reverse=True):
        interfaces = list(obj(child).props.keys())
        MOCK['main'].RemoveObject(child)
        MOCK['main'].EmitSignal(OM, 'InterfacesRemoved', 'oas',
                                [dbus.ObjectPath(child), dbus.Array(interfaces, signature='s')])


class Adapter:
    def __init__(self, name):
        self.path = '/org/bluez/' + name
        self.sessions = {}      # sender -> filter in force
        self.filters = {}       # sender -> last SetDiscoveryFilter
        self.filter_log = []
        self.start_count = self.stop_count = self.disconnect_calls = 0
        self.advertisers = {}   # address -> description (see SetAdvertiser)
        self.last_reported = {}  # address -> description last signalled
        self.reported = set()
        self.mode = 'stream'
        self.timer = None
        self.ads = {}           # (sender, path) -> props
        self.apps = {}          # (sender, root) -> managed objects
        self.pending_connects = {}  # device path -> error callback
        self.writes = {}        # characteristic path -> [{value, options}]
        self.char_errors = {}   # (path, op) -> (name, message)

    def powered(self):
        return bool(obj(self.path).props[ADAPTER]['Powered'])

    def device_path(self, address):
        return self.path + '/dev_' + address.replace(':', '_').upper()

    def set_discovering(self, on):
        if bool(obj(self.path).props[ADAPTER]['Discovering']) != on:
            emit_changed(self.path, ADAPTER, {'Discovering': dbus.Boolean(on)})

    def end_session(self, sender):
        self.sessions.pop(sender, None)
        self.filters.pop(sender, None)
        if not self.sessions:
            self.stop_reports()
            self.set_discovering(False)

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
            if not (self.mode == 'once' and address in self.reported):
                self.reported.add(address)
                self.report(address, adv)
        return True

    def report(self, address, adv):
        '''A Device1 object on first sight, then an RSSI change per report with
        the data that changed (all of it while anyone asks for DuplicateData).'''
        path = self.device_path(address)
        name = adv.get('name')
        mdata = dbus.Dictionary({dbus.UInt16(int(k)): byte_array(bytes.fromhex(v))
                                 for k, v in adv.get('manufacturer', {}).items()}, signature='qv')
        uuids = dbus.Array(adv.get('uuids', []), signature='s')
        last = self.last_reported.get(address)
        self.last_reported[address] = dict(adv)
        changes = {'RSSI': dbus.Int16(adv.get('rssi', -60))}
        if adv.get('manufacturer') and (last is None or adv['manufacturer'] != last.get(
                'manufacturer') or any(f and f.get('DuplicateData') for f in self.sessions.values())):
            changes['ManufacturerData'] = mdata
        if name and (last is None or name != last.get('name')):
            changes['Name'] = changes['Alias'] = dbus.String(name)
        if last is None or adv.get('uuids', []) != last.get('uuids', []):
            changes['UUIDs'] = uuids
        if last is not None:
            emit_changed(path, DEVICE, changes)
            return
        # Without a name BlueZ shows the address, dashed, as the alias.
        changes.setdefault('Alias', dbus.String(address.replace(':', '-')))
        changes.update({'Address': dbus.String(address), 'Connected': dbus.Boolean(False),
                        'ServicesResolved': dbus.Boolean(False)})
        add_object(path, {DEVICE: changes}, {DEVICE: ('Connect', 'Disconnect')})

    def drop_link(self, path):
        remove_tree(path, keep_root=True)
        emit_changed(path, DEVICE, {'ServicesResolved': dbus.Boolean(False)})
        emit_changed(path, DEVICE, {'Connected': dbus.Boolean(False)})

    def resolve_services(self, path, address):
        if path not in mockobject.objects or not obj(path).props[DEVICE]['Connected']:
            return False
        for svc in self.advertisers.get(address, {}).get('gatt', []):
            spath = '%s/service%04x' % (path, svc['handle'])
            add_object(spath, {SERVICE: {'UUID': dbus.String(svc['uuid']),
                                         'Primary': dbus.Boolean(svc.get('primary', True)),
                                         'Device': dbus.ObjectPath(path)}}, {})
            for ch in svc.get('characteristics', []):
                add_object('%s/char%04x' % (spath, ch['handle']), {CHRC: {
                    'UUID': dbus.String(ch['uuid']),
                    'Service': dbus.ObjectPath(spath),
                    'Flags': dbus.Array(ch.get('flags', ['read']), signature='s'),
                    'Value': byte_array(bytes.fromhex(ch.get('value', ''))),
                    'Notifying': dbus.Boolean(False),
                }}, {CHRC: ('ReadValue', 'WriteValue', 'StartNotify')})
        emit_changed(path, DEVICE, {'ServicesResolved': dbus.Boolean(True)})
        return False

    def set_powered(self, powered):
        adapter = obj(self.path).props[ADAPTER]
        if powered == bool(adapter['Powered']):
            return
        if not powered:
            # adapter_stop: discovery sessions and filters go, then every link.
            self.sessions.clear()
            self.filters.clear()
            self.stop_reports()
            self.set_discovering(False)
            for fail in self.pending_connects.values():
                fail(BluezError('Failed', 'le-connection-abort-by-local'))
            self.pending_connects.clear()
            for path, o in list(mockobject.objects.items()):
                if path.startswith(self.path + '/dev_') and o.props.get(DEVICE, {}).get('Connected'):
                    self.drop_link(path)
        changes = {'Powered': dbus.Boolean(powered)}
        if 'PowerState' in adapter:
            changes['PowerState'] = dbus.String('on' if powered else 'off')
        emit_changed(self.path, ADAPTER, changes)

    def state(self):
        return {
            'sessions': {k: plain(v) if v else None for k, v in self.sessions.items()},
            'filters': self.filter_log,
            'startCount': self.start_count,
            'stopCount': self.stop_count,
            'disconnectCalls': self.disconnect_calls,
            'ads': [{'sender': s, 'path': p, 'props': plain(v)} for (s, p), v in self.ads.items()],
            'apps': [{'sender': s, 'root': r, 'objects': plain(v)}
                     for (s, r), v in self.apps.items()],
            'writes': self.writes,
        }


def adapter_of(path):
    for adapter in ADAPTERS.values():
        if path == adapter.path or path.startswith(adapter.path + '/'):
            return adapter
    raise BluezError('DoesNotExist', 'No such adapter')


class Handlers:
    '''Methods of bluetoothd's objects, kept in a class body so that dbusmock
    does not also attach them to "/".'''

    # Adapter1
    @dbus.service.method(ADAPTER, in_signature='a{sv}', out_signature='',
                         sender_keyword='sender')
    def SetDiscoveryFilter(self, filter, sender=None):
        adapter = adapter_of(self.path)
        if str(filter.get('Transport', 'auto')) not in ('auto', 'le', 'bredr'):
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
        adapter.set_discovering(True)
        adapter.start_reports()

    @dbus.service.method(ADAPTER, in_signature='', out_signature='', sender_keyword='sender')
    def StopDiscovery(self, sender=None):
        adapter = adapter_of(self.path)
        if sender not in adapter.sessions:
            raise BluezError('Failed', 'No discovery started')
        adapter.stop_count += 1
        adapter.end_session(sender)

    # Device1
    @dbus.service.method(DEVICE, in_signature='', out_signature='',
                         async_callbacks=('ok', 'err'))
    def Connect(self, ok=None, err=None):
        adapter = adapter_of(self.path)
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
        elif not self.props[DEVICE]['Connected']:
            raise BluezError('NotConnected', 'Not Connected')
        else:
            adapter.drop_link(self.path)

    # GattCharacteristic1 (remote)
    @dbus.service.method(CHRC, in_signature='a{sv}', out_signature='ay',
                         async_callbacks=('ok', 'err'))
    def ReadValue(self, options, ok=None, err=None):
        failure = adapter_of(self.path).char_errors.get((self.path, 'read'))
        if failure:
            err(dbus.exceptions.DBusException(failure[1], name=failure[0]))
            return
        value = bytes(int(b) for b in self.props[CHRC]['Value'])
        ok(byte_array(value[int(options.get('offset', 0)):]))
        # bluetoothd refreshes its cached Value after every read.
        emit_changed(self.path, CHRC, {'Value': byte_array(value)})

    @dbus.service.method(CHRC, in_signature='aya{sv}', out_signature='', byte_arrays=True,
                         async_callbacks=('ok', 'err'))
    def WriteValue(self, value, options, ok=None, err=None):
        # As bluetoothd: one write per characteristic at a time; another one
        # before the remote has answered is refused with InProgress.
        if getattr(self, 'writing', False):
            err(BluezError('InProgress', 'In Progress'))
            return
        adapter = adapter_of(self.path)
        adapter.writes.setdefault(self.path, []).append(
            {'value': bytes(value).hex(), 'options': plain(options)})
        failure = adapter.char_errors.get((self.path, 'write'))
        if failure:
            err(dbus.exceptions.DBusException(failure[1], name=failure[0]))
            return
        self.props[CHRC]['Value'] = byte_array(bytes(value))
        self.writing = True

        def answered():
            self.writing = False
            ok()
            return False
        GLib.timeout_add(5, answered)

    @dbus.service.method(CHRC, in_signature='', out_signature='')
    def StartNotify(self):
        emit_changed(self.path, CHRC, {'Notifying': dbus.Boolean(True)})

    # LEAdvertisingManager1 and GattManager1: as bluetoothd's GDBusClient, they
    # read the client's objects back (ObjectManager first) before replying.
    @dbus.service.method(ADV_MANAGER, in_signature='oa{sv}', out_signature='',
                         sender_keyword='sender', async_callbacks=('ok', 'err'))
    def RegisterAdvertisement(self, path, options, sender=None, ok=None, err=None):
        adapter = adapter_of(self.path)
        key = (str(sender), str(path))
        if key in adapter.ads:
            err(BluezError('AlreadyExists', 'Already Exists'))
            return

        def got_props(props):
            if not valid_advertisement(props):
                err(BluezError('Failed', 'Failed to parse advertisement.'))
                return
            adapter.ads[key] = props
            ok()

        def get_all(*_):
            bus().call_async(sender, path, PROPS, 'GetAll', 's', [ADVERTISEMENT], got_props,
                             lambda e: err(BluezError('Failed', 'Failed to parse advertisement.')))

        bus().call_async(sender, path, OM, 'GetManagedObjects', '', [], get_all, get_all)

    @dbus.service.method(ADV_MANAGER, in_signature='o', out_signature='', sender_keyword='sender')
    def UnregisterAdvertisement(self, path, sender=None):
        if adapter_of(self.path).ads.pop((str(sender), str(path)), None) is None:
            raise BluezError('DoesNotExist', 'Does Not Exist')

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
            for interfaces in objects.values():
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
        if adapter_of(self.path).apps.pop((str(sender), str(root)), None) is None:
            raise BluezError('DoesNotExist', 'Does Not Exist')


def valid_advertisement(props):
    '''advertising.c's parse: a known type and legacy data within 31 bytes.'''
    if str(props.get('Type', '')) not in ('peripheral', 'broadcast'):
        return False
    length = 3 if str(props['Type']) == 'peripheral' else 0  # kernel-managed Flags
    length += sum(4 + len(data) for data in props.get('ManufacturerData', {}).values())
    sizes = {}
    for uuid in map(str, props.get('ServiceUUIDs', [])):
        short = len(uuid) == 4 or (len(uuid) == 36 and uuid.startswith('0000') and
                                   uuid.endswith('-0000-1000-8000-00805f9b34fb'))
        sizes[2 if short else 16] = sizes.get(2 if short else 16, 0) + (2 if short else 16)
    length += sum(2 + total for total in sizes.values())
    return length <= 31


def remote_call(name, uuid, method, signature, args, result):
    '''The remote central calls `method` of the registered characteristic
    with `uuid`; the returned op records the outcome.'''
    found = [(s, p) for (s, _), objects in ADAPTERS[name].apps.items()
             for p, i in objects.items()
             if CHRC in i and str(i[CHRC]['UUID']).lower() == str(uuid).lower()]
    if not found:
        raise BluezError('DoesNotExist', 'No registered characteristic ' + uuid)
    return start_op(found[0][0], found[0][1], CHRC, method, signature, args, result)


def remote_options(name, offset, mtu):
    options = {'device': dbus.ObjectPath(ADAPTERS[name].device_path(REMOTE_CENTRAL)),
               'mtu': dbus.UInt16(mtu), 'link': dbus.String('LE')}
    if offset:
        options['offset'] = dbus.UInt16(offset)
    return dbus.Dictionary(options, signature='sv')


def start_op(owner, path, iface, method, signature, args, result):
    '''An asynchronous call (the owner may be the test process itself).'''
    op = len(OPS) + 1
    OPS[op] = {'done': False}

    def finish(outcome):
        OPS[op] = dict(outcome, done=True)
    bus().call_async(owner, path, iface, method, signature, args,
                     lambda *reply: finish(result(*reply)),
                     lambda e: finish({'error': e.get_dbus_name(),
                                       'message': e.get_dbus_message() or ''}))
    return op


# --- control interface (org.lumora.BluezMock on "/") ---------------------------------------

def make_adapter(desc):
    '''{"name", "address", "powered", "peripheral", "props": {"PowerState"}}.'''
    name = desc['name']
    peripheral = desc.get('peripheral', True)
    props = {
        'Address': dbus.String(desc.get('address', '00:AA:01:00:00:00')),
        'Powered': dbus.Boolean(desc.get('powered', True)),
        'Discovering': dbus.Boolean(False),
        'Roles': dbus.Array(['central', 'peripheral'] if peripheral else ['central'],
                            signature='s'),
    }
    if 'PowerState' in desc.get('props', {}):
        props['PowerState'] = dbus.String(desc['props']['PowerState'])
    interfaces = {ADAPTER: props}
    methods = {ADAPTER: ('SetDiscoveryFilter', 'StartDiscovery', 'StopDiscovery')}
    if peripheral:
        interfaces[ADV_MANAGER] = {'SupportedInstances': dbus.Byte(5)}
        interfaces[GATT_MANAGER] = {}
        methods[ADV_MANAGER] = ('RegisterAdvertisement', 'UnregisterAdvertisement')
        methods[GATT_MANAGER] = ('RegisterApplication', 'UnregisterApplication')
    ADAPTERS[name] = Adapter(name)
    add_object(ADAPTERS[name].path, interfaces, methods)


@dbus.service.method(MAIN_IFACE, in_signature='s', out_signature='')
def AddAdapter(self, desc):
    make_adapter(json.loads(desc))


@dbus.service.method(MAIN_IFACE, in_signature='s', out_signature='')
def RemoveAdapter(self, name):
    adapter = ADAPTERS.pop(name)
    adapter.stop_reports()
    remove_tree(adapter.path)


@dbus.service.method(MAIN_IFACE, in_signature='sb', out_signature='')
def SetPowered(self, name, powered):
    ADAPTERS[name].set_powered(bool(powered))


@dbus.service.method(MAIN_IFACE, in_signature='ss', out_signature='')
def SetReportMode(self, name, mode):
    ADAPTERS[name].mode = str(mode)


@dbus.service.method(MAIN_IFACE, in_signature='ss', out_signature='')
def SetAdvertiser(self, name, desc):
    '''JSON {"address", "name", "rssi", "manufacturer": {"76": "hex"}, "uuids",
    "connect": accept|ignore|refuse, "gatt": [...]};
    updates the advertiser when it exists.'''
    s = json.loads(desc)
    ADAPTERS[name].advertisers.setdefault(s['address'], {}).update(s)


@dbus.service.method(MAIN_IFACE, in_signature='ss', out_signature='')
def DropLink(self, name, address):
    adapter = ADAPTERS[name]
    path = adapter.device_path(address)
    if path in mockobject.objects and obj(path).props[DEVICE]['Connected']:
        adapter.drop_link(path)


@dbus.service.method(MAIN_IFACE, in_signature='ssss', out_signature='')
def SetCharacteristicError(self, path, op, name, message):
    adapter_of(path).char_errors[(str(path), str(op))] = (str(name), str(message))


@dbus.service.method(MAIN_IFACE, in_signature='say', out_signature='b', byte_arrays=True)
def Notify(self, path, value):
    if not obj(path).props[CHRC]['Notifying']:
        return False
    emit_changed(path, CHRC, {'Value': byte_array(bytes(value))})
    return True


@dbus.service.method(MAIN_IFACE, in_signature='s', out_signature='')
def ReleaseAdvertisements(self, name):
    adapter = ADAPTERS[name]
    for (sender, path) in adapter.ads:
        bus().call_async(sender, path, ADVERTISEMENT, 'Release', '', [], None, None)
    adapter.ads.clear()


@dbus.service.method(MAIN_IFACE, in_signature='ssqq', out_signature='u')
def RemoteRead(self, name, uuid, offset, mtu):
    return remote_call(name, uuid, 'ReadValue', 'a{sv}', [remote_options(name, offset, mtu)],
                       lambda value: {'value': hexs(value)})


@dbus.service.method(MAIN_IFACE, in_signature='ssayqq', out_signature='u', byte_arrays=True)
def RemoteWrite(self, name, uuid, value, offset, mtu):
    return remote_call(name, uuid, 'WriteValue', 'aya{sv}',
                       [byte_array(bytes(value)), remote_options(name, offset, mtu)],
                       lambda *_: {'value': ''})


@dbus.service.method(MAIN_IFACE, in_signature='sss', out_signature='u')
def Probe(self, owner, path, interface):
    '''Asks `owner` for the properties of `path`; the op records them or the error.'''
    return start_op(owner, path, PROPS, 'GetAll', 's', [interface],
                    lambda props: {'value': plain(props)})


@dbus.service.method(MAIN_IFACE, in_signature='', out_signature='s')
def State(self):
    return json.dumps({'adapters': {n: a.state() for n, a in ADAPTERS.items()},
                       'ops': {str(k): v for k, v in OPS.items()}})


def client_gone(name, old, new):
    '''bluetoothd forgets what a client held when it leaves the bus.'''
    if new or not old:
        return
    for adapter in ADAPTERS.values():
        adapter.end_session(old)
        for table in (adapter.ads, adapter.apps):
            for key in [k for k in table if k[0] == old]:
                del table[key]


def load(mock, parameters):
    MOCK['main'] = mock
    mockobject.objects[mock.path] = mock
    mock.AddObject('/org/bluez', 'org.bluez.AgentManager1', {}, [])
    for desc in parameters.get('adapters', [{'name': 'hci0'}]):
        make_adapter(desc)
    bus().add_signal_receiver(client_gone, signal_name='NameOwnerChanged',
                              dbus_interface='org.freedesktop.DBus',
                              path='/org/freedesktop/DBus')
    # The harness waits for this line: org.bluez is owned and the objects exist.
    print('lumora-bluez-mock ready', flush=True)

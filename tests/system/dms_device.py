"""What the media server's device is expected to publish, built independently
of the server from its configuration and the namespace's interface, plus a
shared way to start one server for a whole test module."""
import os
import re
from pathlib import Path

from conftest import Dms

CONFIG_VALUES = {
    "deviceName": "Test DMS & Co",
    "manufacturer": "ACME <Labs>",
    "dmsModelName": "DMSModel",
    "modelNumber": "1.5",
    "modelDescription": "Unit 'test' > demo",
}

MEDIA_SERVER = "urn:schemas-upnp-org:device:MediaServer:1"
CONTENT_DIRECTORY = "urn:schemas-upnp-org:service:ContentDirectory:1"
CONNECTION_MANAGER = "urn:schemas-upnp-org:service:ConnectionManager:1"
XML_TYPE = 'text/xml; charset="utf-8"'


def config_text(media_path):
    lines = [f'path = "{media_path}"', 'refreshInterval = "30"']
    lines += [f'{key} = "{value}"' for key, value in CONFIG_VALUES.items()]
    return "\n".join(lines) + "\n"


def start_server(folder):
    """A server in `folder` with the test configuration and an empty library."""
    media = folder / "media"
    media.mkdir(parents=True, exist_ok=True)
    server = Dms(folder / "server", config_text(media))
    server.wait_ready()
    return server


def udn():
    """"DMS", three zero bytes, 0x10 0 0x80 0, then the MAC of the first interface."""
    mac = Path("/sys/class/net/dms0/address").read_text().strip().replace(":", "").upper()
    return f"444D5300-0000-1000-8000-{mac}"


def server_line():
    system = os.uname()
    return (f"Server: {system.sysname}/{system.release} UPnP/1.0 "
            f"{CONFIG_VALUES['dmsModelName']}/{CONFIG_VALUES['modelNumber']}")


def escape(text):
    return (text.replace("&", "&amp;").replace('"', "&quot;").replace("'", "&apos;")
            .replace("<", "&lt;").replace(">", "&gt;"))


def description(local_address):
    dlna = 'xmlns:dlna="urn:schemas-dlna-org:device-1-0"'
    services = ""
    for name, service_type in (("ContentDirectory", CONTENT_DIRECTORY), ("ConnectionManager", CONNECTION_MANAGER)):
        services += (f"<service><serviceType>{service_type}</serviceType>"
                     f"<serviceId>urn:upnp-org:serviceId:{name}</serviceId>"
                     f"<SCPDURL>/DMS/{name}/document</SCPDURL><controlURL>/DMS/{name}/control</controlURL>"
                     f"<eventSubURL>/DMS/{name}/event</eventSubURL></service>")
    values = CONFIG_VALUES
    return ('<?xml version="1.0" encoding="UTF-8"?><root xmlns="urn:schemas-upnp-org:device-1-0">'
            "<specVersion><major>1</major><minor>0</minor></specVersion><device>"
            f"<dlna:X_DLNADOC {dlna}>DMS-1.50</dlna:X_DLNADOC><dlna:X_DLNADOC {dlna}>M-DMS-1.50</dlna:X_DLNADOC>"
            f"<dlna:X_DLNACAP {dlna}></dlna:X_DLNACAP>"
            f"<deviceType>{MEDIA_SERVER}</deviceType>"
            f"<friendlyName>{escape(values['deviceName'])}</friendlyName>"
            f"<manufacturer>{escape(values['manufacturer'])}</manufacturer>"
            f"<modelName>{escape(values['dmsModelName'])}</modelName>"
            f"<modelNumber>{escape(values['modelNumber'])}</modelNumber>"
            f"<modelDescription>{escape(values['modelDescription'])}</modelDescription>"
            f"<presentationURL>http://{local_address}</presentationURL><UDN>uuid:{udn()}</UDN>"
            f"<serviceList>{services}</serviceList></device></root>").encode()


# Actions (name, in arguments, out arguments) and state variables (name, type,
# evented, allowed values) of the two services, in table order.
ACTIONS = {
    CONTENT_DIRECTORY: [
        ("Browse",
         [("ObjectID", "A_ARG_TYPE_ObjectID"), ("BrowseFlag", "A_ARG_TYPE_BrowseFlag"),
          ("Filter", "A_ARG_TYPE_Filter"), ("StartingIndex", "A_ARG_TYPE_Index"),
          ("RequestedCount", "A_ARG_TYPE_Count"), ("SortCriteria", "A_ARG_TYPE_SortCriteria")],
         [("Result", "A_ARG_TYPE_Result"), ("NumberReturned", "A_ARG_TYPE_Count"),
          ("TotalMatches", "A_ARG_TYPE_Count"), ("UpdateID", "A_ARG_TYPE_UpdateID")]),
        ("GetSearchCapabilities", [], [("SearchCaps", "SearchCapabilities")]),
        ("GetSortCapabilities", [], [("SortCaps", "SortCapabilities")]),
        ("GetSystemUpdateID", [], [("Id", "SystemUpdateID")]),
    ],
    CONNECTION_MANAGER: [
        ("GetCurrentConnectionIDs", [], [("ConnectionIDs", "CurrentConnectionIDs")]),
        ("GetCurrentConnectionInfo", [("ConnectionID", "A_ARG_TYPE_ConnectionID")],
         [("RcsID", "A_ARG_TYPE_RcsID"), ("AVTransportID", "A_ARG_TYPE_AVTransportID"),
          ("ProtocolInfo", "A_ARG_TYPE_ProtocolInfo"), ("PeerConnectionManager", "A_ARG_TYPE_ConnectionManager"),
          ("PeerConnectionID", "A_ARG_TYPE_ConnectionID"), ("Direction", "A_ARG_TYPE_Direction"),
          ("Status", "A_ARG_TYPE_ConnectionStatus")]),
        ("GetProtocolInfo", [], [("Source", "SourceProtocolInfo"), ("Sink", "SinkProtocolInfo")]),
    ],
}

VARIABLES = {
    CONTENT_DIRECTORY: [
        ("A_ARG_TYPE_BrowseFlag", "string", False, ["BrowseMetadata", "BrowseDirectChildren"]),
        ("A_ARG_TYPE_Count", "ui4", False, None),
        ("A_ARG_TYPE_Filter", "string", False, None),
        ("A_ARG_TYPE_Index", "ui4", False, None),
        ("A_ARG_TYPE_ObjectID", "string", False, None),
        ("A_ARG_TYPE_Result", "string", False, None),
        ("A_ARG_TYPE_SortCriteria", "string", False, None),
        ("A_ARG_TYPE_UpdateID", "ui4", False, None),
        ("ContainerUpdateIDs", "string", True, None),
        ("SearchCapabilities", "string", False, None),
        ("SortCapabilities", "string", False, None),
        ("SystemUpdateID", "ui4", True, None),
    ],
    CONNECTION_MANAGER: [
        ("A_ARG_TYPE_AVTransportID", "i4", False, None),
        ("A_ARG_TYPE_ConnectionID", "i4", False, None),
        ("A_ARG_TYPE_ConnectionManager", "string", False, None),
        ("A_ARG_TYPE_ConnectionStatus", "string", False,
         ["OK", "ContentFormatMismatch", "InsufficientBandwidth", "UnreliableChannel", "Unknown"]),
        ("A_ARG_TYPE_Direction", "string", False, ["Input", "Output"]),
        ("A_ARG_TYPE_ProtocolInfo", "string", False, None),
        ("A_ARG_TYPE_RcsID", "i4", False, None),
        ("CurrentConnectionIDs", "string", True, None),
        ("SinkProtocolInfo", "string", True, None),
        ("SourceProtocolInfo", "string", True, None),
    ],
}


def served_actions(document):
    """Names of the actions an SCPD lists, in order."""
    return re.findall(r"<action><name>([^<]*)</name>", document.decode())


def scpd(service_type, listed):
    """The SCPD listing the actions named in `listed` (those with handlers)."""
    text = ('<?xml version="1.0" encoding="UTF-8"?><scpd xmlns="urn:schemas-upnp-org:service-1-0">'
            "<specVersion><major>1</major><minor>0</minor></specVersion><actionList>")
    for name, inputs, outputs in ACTIONS[service_type]:
        if name not in listed:
            continue
        text += f"<action><name>{name}</name>"
        if inputs or outputs:
            text += "<argumentList>"
            for direction, arguments in (("in", inputs), ("out", outputs)):
                for argument, variable in arguments:
                    text += (f"<argument><name>{argument}</name><direction>{direction}</direction>"
                             f"<relatedStateVariable>{variable}</relatedStateVariable></argument>")
            text += "</argumentList>"
        text += "</action>"
    text += "</actionList><serviceStateTable>"
    for name, data_type, evented, allowed in VARIABLES[service_type]:
        text += (f'<stateVariable sendEvents="{"yes" if evented else "no"}"><name>{name}</name>'
                 f"<dataType>{data_type}</dataType>")
        if allowed:
            text += "<allowedValueList>" + "".join(f"<allowedValue>{v}</allowedValue>" for v in allowed)
            text += "</allowedValueList>"
        text += "</stateVariable>"
    return (text + "</serviceStateTable></scpd>").encode()

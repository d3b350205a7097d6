"""Documents that are refused, for the test of what refuses them.

A row is the document (JSON, or the text itself where it isn't JSON), the path of the refusal, a part
of its reason, and whether a schema can't say it.
"""

UNSAID = True
RULE = "/policies/0/rules/0"
APP = "/applications/0"
WEB = "/web_policies/0"
CARRIER = "/carriers/0"
BINDINGS = "wificalling_interfaces"


def in_policy(**members):
    return {"policies": [{"utp_id": 1, **members}]}


def in_rule(**members):
    return in_policy(rules=[{"app_name": "a", **members}])


def in_application(**members):
    return {"applications": [{"app_name": "a", **members}]}


def in_utp(**members):
    return {"utps": [{"id": 1, **members}]}


def in_web_policy(**members):
    return {"web_policies": [{"uuid": "u", **members}], "web_interfaces": []}


def in_carrier(**members):
    return {"carriers": [{"pname": "c", "priority": 3, **members}], "wificalling_interfaces": []}


def in_binding(table, **members):
    return {table: [{"ifname": "wlan0", **members}]}


WRONG = [
    # No JSON, or not one document of it.
    ('{\n  "policies": [,]}', "parse error at line 2, column 16", "unexpected ','"),
    ("", "parse error at line 1, column 1", "end of input"),
    ('{"utps": []} x', "parse error at line 1, column 14", "expected end of input"),
    ('{"utps": []}\0{"utps": [1]}', "line 1, column 13", "NUL"),
    ('{"utps": [{"id": 1}, {"id": 2, "id": 3}]}', "/utps/1/id", "twice"),
    ('{"policies": [{"utp_id": 1e999}]}', "number overflow", ""),
    ("[" * 100_000 + "]" * 100_000, "is nested deeper than 64 levels", ""),
    ('{"policies": [' + "{}," * 200_000 + "{}]}", "/policies", "64 have room"),
    ('{"policies": [' + "{}," * 1_000_000 + "{}]}", "has more than 1000000 values", ""),
    ('{"' + "x" * 100_000 + '": {' + '"a": 0,' * 100_000 + '"a": 0}}', "has a key of 100000 bytes", ""),
    # The document.
    ([], "the document", "must be an object"),
    ({}, "the document", "has no table"),
    ({"$schema": 7, "utps": []}, "/$schema", "must be a text"),
    ({"policy": []}, "/policy", 'did you mean "policies"?); the keys are policies, utps'),
    ({"utps": {}}, "/utps", "must be an array"),
    ({"utps": [7]}, "/utps/0", "must be an object"),
    # Numbers.
    ({"policies": [{}]}, "/policies/0", "has no utp_id"),
    (in_policy(utp_id=65), "/policies/0/utp_id", "from 1 to 64"),
    (in_utp(id=0), "/utps/0/id", "from 1 to 64"),
    (in_utp(id=1.5), "/utps/0/id", "is 1.5; it must be a whole number"),
    (in_utp(id=1.0), "/utps/0/id", "is 1.0; it must be a whole number", UNSAID),
    (in_utp(id=2**32 + 1), "/utps/0/id", "is 4294967297"),
    (in_utp(id=2**64 - 1), "/utps/0/id", "is 18446744073709551615"),
    (in_utp(id="1"), "/utps/0/id", 'is "1"; it must be a whole number'),
    (in_utp(id=True), "/utps/0/id", "is true; it must be a whole number"),
    (in_rule(rate_up=65536), RULE + "/rate_up", "0 to 65535; the unit is kbit/s, or a larger"),
    (in_rule(cat_id="Games"), RULE + "/cat_id", '"Games"; it must be a whole number from 0 to 65535'),
    (in_rule(deny=2), RULE + "/deny", "true or false"),
    # Texts.
    (in_utp(name="a" * 65), "/utps/0/name", "has 65 bytes; 64 have room"),
    (in_utp(name="\u00e9" * 33), "/utps/0/name", "has 66 bytes; 64 have room", UNSAID),
    (in_utp(name="a\0b"), "/utps/0/name", "control"),
    (in_utp(name=7), "/utps/0/name", "must be a text"),
    ({"policies": [{"utp_id": 1, "rules": [{"app_id": 1}]}]}, RULE, "has no app_name"),
    (in_rule(app_name=""), RULE + "/app_name", "is empty"),
    (in_rule(app_name="a,b"), RULE + "/app_name", 'one of ",;"'),
    (in_rule(app_name="a "), RULE + "/app_name", "blank"),
    (in_rule(app_name=" a"), RULE + "/app_name", "blank"),
    (in_rule(app_name="a\n"), RULE + "/app_name", "control"),
    (in_rule(app_name="x[Policy END]"), RULE + "/app_name", "[policy end]"),
    # Words, and what is inside a record.
    (in_policy(rules=[{"app_name": "a"}] * 65), "/policies/0/rules", "65 elements; 64 have room"),
    (in_rule(qos={"mark": {"kind": "dscp", "type": "voice"}}), RULE + "/qos/mark/type",
     'is "voice" (did you mean "Voice"?); it must be one of Background, BestEffort, Video, Voice'),
    (in_rule(qos={"clasify": "Voice"}), RULE + "/qos/clasify", 'did you mean "classify"?'),
    # What records do to each other.
    ({"policies": [{"utp_id": 1, "uuid": "ab"}, {"utp_id": 2, "uuid": "AB"}]}, "/policies/1/uuid",
     "same as in /policies/0", UNSAID),
    ({"policies": [{"utp_id": i} for i in (1, 2, 1)]}, "/policies/2/utp_id",
     "same as in /policies/0", UNSAID),
    ({"utps": [{"id": 9}, {"id": 9}]}, "/utps/1/id", "same as in /utps/0", UNSAID),
    ({"policies": [{"utp_id": 4, "uuid": "u"}], "utps": [{"id": 4}]}, "/utps/0",
     "takes UTP 4 away from /policies/0", UNSAID),
    # Applications.
    ({"applications": [{"app_name": "a"}] * 33}, "/applications", "32 have room"),
    (in_application(dst_ip="2001:db8::1"), APP + "/dst_ip", "IPv4"),
    (in_application(dst_ip="10.0.0.256"), APP + "/dst_ip", "IPv4"),
    (in_application(dst_ip="10.0.0.0/33"), APP + "/dst_ip", "IPv4"),
    (in_application(dst_ip="10.0.0.0/08"), APP + "/dst_ip", "IPv4"),
    (in_application(dst_ip="10.0.0.1\n"), APP + "/dst_ip", "IPv4"),
    (in_application(src_ip="10.0.0.0/8"), APP + "/src_ip", "prefix"),
    (in_application(netmask="255.0.0.0"), APP + "/netmask", "needs a dst_ip"),
    (in_application(dst_ip="10.0.0.0/8", netmask="255.0.0.0"), APP + "/netmask", "prefix", UNSAID),
    (in_application(dst_ip="10.0.0.0", netmask="0.0.0.255"), APP + "/netmask", "mask like"),
    (in_application(protocol=6), APP + "/protocol", "one of tcp, udp"),
    # Web filtering.
    (in_web_policy(categories=["Gamblig"]), WEB + "/categories/0",
     'is "Gamblig" (did you mean "Gambling"?); it must be a whole number from 0 to 65535 or a name '),
    (in_web_policy(categories=[1] * 84), WEB + "/categories", "83 have room"),
    (in_web_policy(whitelist=["a", ""]), WEB + "/whitelist/1", "is empty"),
    (in_web_policy(blacklist=["a,b"]), WEB + "/blacklist/0", 'one of ";,"'),
    (in_web_policy(name="[POLICY_end]"), WEB + "/name", "[policy_end]"),
    (in_web_policy(google_vip="203.0.113"), WEB + "/google_vip", "must be an IPv4 address"),
    (in_web_policy(bing_safe_search=True), WEB + "/bing_safe_search", "needs a bing_vip", UNSAID),
    ({"web_policies": [{"uuid": "a"}, {"uuid": "A"}]}, "/web_policies/1/uuid",
     "same as in /web_policies/0", UNSAID),
    ({"web_policies": [{"uuid": "a", "utp_id": 5}], "web_utps": [{"id": 5}]}, "/web_utps/0",
     "takes UTP 5 away from /web_policies/0", UNSAID),
    (in_binding("web_interfaces", policy_uuid=" u"), "/web_interfaces/0/policy_uuid", "blank"),
    # Wi-Fi calling.
    (in_carrier(pname="a;b"), CARRIER + "/pname", 'one of ";,"'),
    (in_carrier(epdg=[{}]), CARRIER + "/epdg/0", "neither", UNSAID),
    (in_carrier(epdg=[{"fqdn": "f"}] * 6), CARRIER + "/epdg", "5 have room"),
    ({"carriers": [{"pname": "a", "priority": 1}, {"pname": "A", "priority": 1}]},
     "/carriers/1/pname", "same as in /carriers/0", UNSAID),
    (in_binding(BINDINGS), "/wificalling_interfaces/0", "has no profile", UNSAID),
    (in_binding(BINDINGS, profile=["x[intfcfg end]"]), "/wificalling_interfaces/0/profile/0",
     "[intfcfg end]"),
    ({"carriers": [], **in_binding(BINDINGS, profile=["a", "b"])},
     "/wificalling_interfaces/0/profile", "none of these carriers", UNSAID),
    (in_application(bitmap=4), APP + "/bitmap", "isn't known here; the keys are app_name, src_ip"),
]

# At the bounds, and taken.
RIGHT = [
    {"$schema": "./jorn.schema.json", "policies": [], "utps": [], "applications": []},
    in_policy(utp_id=64, name="n" * 64, uuid="[policy end],; ", attr4=255, log_enable=1,
              rules=[{"app_name": "a" * 63, "cat_name": "User Defined", "app_id": 65535,
                      "cat_id": "User Defined", "deny": 0, "qos": {}, "rate_up": 65535}] * 64),
    {"applications": [{"app_name": "a" * 63, "cat_id": 65535}] * 32},
    in_application(dst_ip="0.0.0.0/0", src_ip="255.255.255.255", dst_port=65535, protocol="udp"),
    in_web_policy(name=" n,", utp_id=64, categories=[65535, "Malware"] + [0] * 81,
                  whitelist=["w" * 64] * 16, google_vip="0.0.0.0"),
    {"web_interfaces": [{"ifname": "w" * 16}, {"ifname": "W" * 16, "delete": 1}]},
    in_carrier(priority=-2**31, epdg=[{"fqdn": "f" * 255}, {"ipaddr": "1.2.3.4"}]),
    in_binding(BINDINGS, profile=["p" * 64] * 5, profile_alt=["p;,"], delete=False),
    in_application(dst_ip="199.9.10.249", netmask="255.255.255.254", protocol="tcp"),
]

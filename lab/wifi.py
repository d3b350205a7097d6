"""Simulated radios (mac80211_hwsim), and what hostapd and wpa_supplicant are told about them. They are the
whole machine's and come with no network namespace, so this takes root of one that is nobody's."""
import os

from .network import inside, ip
from .programs import run

FREQUENCIES = {channel: 2407 + 5 * channel for channel in (1, 6, 11)}  # MHz
WPA2 = "wpa=2\nwpa_key_mgmt=WPA-PSK\nrsn_pairwise=CCMP\nwpa_passphrase=correct horse\n"


def add_radios(count):
    """Their interfaces are wlan0, wlan1 and so on."""
    run("modprobe", "mac80211_hwsim", f"radios={count}")


def remove_radios():
    run("modprobe", "-r", "mac80211_hwsim")


def radio_address(number):
    return f"02:00:00:00:{number:02x}:00"


def give_radio(interface, netns, name):
    """With its interface, which is called so there."""
    radio = os.path.basename(os.path.realpath(f"/sys/class/net/{interface}/phy80211"))
    run("iw", "phy", radio, "set", "netns", "name", netns)
    ip(netns, "link", "set", interface, "name", name)


def use_four_addresses(netns, interface):
    run(*inside(netns), "iw", "dev", interface, "set", "4addr", "on")


def hostapd_settings(interface, bridge, channel, more=""):
    return (f"interface={interface}\nbridge={bridge}\nssid=lab\nhw_mode=g\nchannel={channel}\n"
            f"ieee80211n=1\nwmm_enabled=1\n{WPA2}{more}")


def supplicant_settings(channel, more=""):
    """Of a station that looks for access points on that channel alone."""
    return (f'{more}network={{\n ssid="lab"\n key_mgmt=WPA-PSK\n psk="correct horse"\n'
            f" scan_freq={FREQUENCIES[channel]}\n}}\n")

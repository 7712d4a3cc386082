#!/bin/sh
# SPDX-License-Identifier: ISC
# The baseline of a check: the pipelines with which the daemon asks who this router is, and one
# request by curl. Nothing is parsed, compared or told to anybody.
qor_factory r sn
ubus call system board | jsonfilter -e '@["release"]["revision"]' | tr -d '\r\n'
ubus call system board | jsonfilter -e '@["release"]["builddate"]' | tr -d '\r\n'
device=$(ubus call network.interface.wan status | jsonfilter -e '@.device' | tr -d '\r\n')
interface=$(ip route show default | awk '/default/ {print $5}' | tr -d '\r\n')
ifconfig "$device" | grep HWaddr | awk ' { print $5 } ' | tr -d '\r\n'
ifconfig "$interface" | awk '/inet addr:/ { sub("addr:", "", $2); print $2 }' | tr -d '\r\n'
uci -q get system.@system[0].fwupdate_xml_url
ubus call system board | jsonfilter -e '@["board_name"]' | tr -d '\r\n'
/host/usr/bin/curl -s -o /dev/null http://update.example.com/update.xml

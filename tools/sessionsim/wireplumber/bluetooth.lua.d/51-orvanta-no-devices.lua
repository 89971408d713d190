-- A test session touches no Bluetooth device.
bluez_monitor.enabled = false

-- A test session opens no sound card, camera or video device: only the nodes its tests make.
alsa_monitor.enabled = false
v4l2_monitor.enabled = false
libcamera_monitor.enabled = false

// removed once the desktop services land

"""The machine on the network: the listening socket, its connections, and the events that are told."""

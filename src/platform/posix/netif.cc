// Filled in with the netif area of the platform layer.

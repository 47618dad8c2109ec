// placeholder until the picture store lands

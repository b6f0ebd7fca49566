def draw(path, rows, points):
    pass

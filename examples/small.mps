* A small blending LP in fixed form: four products, three resources,
* a ranged quality row, a free reporting row and an objective constant.
NAME          SMALL
ROWS
 N  PROFIT
 L  MACHINE
 L  LABOUR
 G  QUALITY
 E  BALANCE
 N  VOLUME
COLUMNS
    BOLTS     PROFIT            -3.0   MACHINE            1.0
    BOLTS     LABOUR             2.0   QUALITY            1.0
    BOLTS     VOLUME             1.0
    NUTS      PROFIT            -2.0   MACHINE            1.0
    NUTS      LABOUR             1.0   BALANCE            1.0
    NUTS      VOLUME             1.0
    SCREWS    PROFIT            -4.0   MACHINE            2.0
    SCREWS    LABOUR             1.0   QUALITY            2.0
    SCREWS    BALANCE           -1.0   VOLUME             1.0
    RIVETS    PROFIT            -1.0   MACHINE            0.5
    RIVETS    QUALITY           -1.0   VOLUME             1.0
RHS
    RHS       PROFIT           -10.0   MACHINE            8.0
    RHS       LABOUR            10.0   QUALITY            2.0
    RHS       BALANCE            1.0
RANGES
    RNG       QUALITY            6.0
BOUNDS
 UP BND       BOLTS              3.0
 LO BND       NUTS               0.5
 UP BND       NUTS               4.0
 MI BND       RIVETS
 UP BND       RIVETS             2.0
ENDATA
